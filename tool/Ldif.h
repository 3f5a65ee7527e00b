// LDIF (RFC 2849): reads entries to add, and writes lines.
#ifndef SOLVANE_TOOL_LDIF_H
#define SOLVANE_TOOL_LDIF_H

#include "Files.h"
#include "Outcome.h"

#include <solvane/ldap/LDAPAttribute.h>

#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

/// An entry described by a record.
struct LdifEntry {
    unsigned long line = 0;              ///< where the record begins, counted from 1
    std::string dn;                      ///< as written; empty if the record has no valid one
    std::list<LDAPAttribute> attributes; ///< in order of first appearance
};

/// An invalid record; the reader continues with the next one.
class LdifFault : public Failure {
public:
    LdifFault(LdifEntry const& entry, std::string const& cause, std::string const& remedy)
        : Failure(Outcome::badInput, cause, remedy), m_entry(entry)
    {
    }

    /// The part of the record that was read.
    LdifEntry const& entry() const { return m_entry; }

private:
    LdifEntry m_entry;
};

/// Reads content records, and change records of type add. Values from URLs and included files are
/// refused: LDIF from another source must not read files of the user who loads it. Not thread-safe.
class LdifReader {
public:
    /// @param path  "-" for standard input
    /// @throws Failure  "configuration": the file cannot be opened
    explicit LdifReader(std::string const& path);

    /// Blocks until the descriptor can be read; returns false to stop reading.
    using AwaitInput = std::function<bool(int descriptor)>;

    /// Reads the next entry.
    /// @param awaitInput  is called while the input has no whole line
    /// @return false at the end
    /// @throws LdifFault  the record is malformed or unsupported; the text names file and line
    /// @throws Failure    "configuration": the file cannot be read
    bool next(LdifEntry& entry, AwaitInput const& awaitInput = waitForInput);

private:
    struct Line {
        unsigned long number = 0;
        std::string text; ///< with its continuations
    };
    struct Part {
        std::string name;
        std::string value;
    };

    bool readRecord(AwaitInput const& awaitInput);
    bool readLine(std::string& line, AwaitInput const& awaitInput);
    void addLine(std::string const& text);
    void takeVersion();
    void takeDn(LdifEntry& entry, Line& line) const;
    void takeAttribute(LdifEntry& entry, Line& line, bool isHead) const;
    void addValue(LdifEntry& entry, Line const& line, Part const& part) const;
    Part parse(LdifEntry const& entry, Line& line) const;
    [[noreturn]] void refuse(LdifEntry const& entry, unsigned long line, std::string const& cause,
                             std::string const& remedy) const;

    std::string m_name;
    LineReader m_lines;
    unsigned long m_number = 0; ///< of the last line read
    bool m_isFirst = true;
    bool m_isComment = false; ///< whether the last line read belongs to a comment
    std::vector<Line> m_record;
};

/// How a value is written.
enum class LdifForm {
    asFits, ///< as text if possible, else in base64
    base64, ///< always in base64
};

/// Appends a line with its newline, folded if it is long.
void appendLdif(std::string& out, std::string const& name, std::string_view value,
                LdifForm form = LdifForm::asFits);

} // namespace Solvane::Tool

#endif
