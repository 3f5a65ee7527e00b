// LDIF (RFC 2849): reads entries and changes, from a file that may be slow.
#ifndef SOLVANE_TOOL_LDIF_H
#define SOLVANE_TOOL_LDIF_H

#include "Files.h"
#include "Outcome.h"

#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPLdif.h>

#include <functional>
#include <list>
#include <string>

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

    /// Line and DN of the record.
    LdifEntry const& entry() const { return m_entry; }

private:
    LdifEntry m_entry;
};

/// Reads entries: content records, and change records of type add; or records of any kind. Values from URLs and included files are
/// refused: LDIF from another source must not read files of the user who loads it. Not thread-safe.
class LdifReader {
public:
    /// @param path  "-" for standard input
    /// @throws Failure  "configuration": the file cannot be opened
    explicit LdifReader(std::string const& path);
    /// @param name  of the file, for messages
    LdifReader(std::string const& path, std::string const& name);
    LdifReader(LdifReader const&) = delete;
    LdifReader& operator=(LdifReader const&) = delete;

    /// Blocks until the descriptor can be read; returns false to stop reading.
    using AwaitInput = std::function<bool(int descriptor)>;

    /// Reads the next entry.
    /// @param awaitInput  is called while the input has no whole line
    /// @return false at the end
    /// @throws LdifFault  the record is malformed or unsupported; the text names file and line
    /// @throws Failure    "configuration": the file cannot be read
    bool next(LdifEntry& entry, AwaitInput const& awaitInput = waitForInput);
    /// The same for a record of any kind.
    bool next(LDAPLdifRecord& record, AwaitInput const& awaitInput = waitForInput);

private:
    std::size_t read(char* buffer, std::size_t size);
    LdifEntry entryOf(LDAPLdifRecord const& record) const;
    [[noreturn]] void refuse(LDAPLdifRecord const& record, LDAPException const& fault) const;
    [[noreturn]] void refuse(LDAPLdifRecord const& record, unsigned long line,
                             std::string const& cause, std::string const& remedy) const;

    std::string m_name;
    LineReader m_lines;
    std::string m_line;                       ///< with its newline
    std::size_t m_taken = 0;                  ///< bytes of the line that were passed on
    AwaitInput const* m_awaitInput = nullptr; ///< of the call under way
    bool m_isStopped = false;
    LDAPLdifReader m_reader;
};

} // namespace Solvane::Tool

#endif
