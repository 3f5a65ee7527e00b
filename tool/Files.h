// Reading the files that a user names.
#ifndef SOLVANE_TOOL_FILES_H
#define SOLVANE_TOOL_FILES_H

#include "Failure.h"

#include <solvane/lookup/LDAPLookup.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// An open file, closed at the end of its scope.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
    ~Descriptor();
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return m_descriptor; }
    bool isOpen() const { return m_descriptor >= 0; }

private:
    int m_descriptor;
};

/// The failure of a file that was named on the command line.
/// @param what   its role, as "the template file"
/// @param error  errno
Failure unusableFile(std::string const& what, std::string const& path, int error);

/// A whole small file.
/// @throws Failure  "configuration"
std::string readFile(std::string const& what, std::string const& path);

/// The text without its last newline, if it ends in one.
std::string withoutLastNewline(std::string text);

/// The lines of a file, or of standard input for "-"; of any length.
class LineReader {
public:
    /// @param what       the file's role, as "the file of keys"
    /// @param separator  what ends a line
    /// @throws Failure  "configuration": the file cannot be opened
    LineReader(std::string const& what, std::string const& path, char separator);
    ~LineReader();
    LineReader(LineReader const&) = delete;
    LineReader& operator=(LineReader const&) = delete;

    /// The next line without its end; a last one need not have an end. Where it may not wait and
    /// no whole line is there yet, "nothing".
    /// @throws Failure  "configuration": the file cannot be read
    LDAPLookup::Supply next(std::string& line, bool mayWait);

    int descriptor() const { return m_descriptor; }
    /// Whether it is a regular file, which never has to be waited for.
    bool isRegular() const;
    /// How many lines are ahead before the first one is read; none but in a regular file.
    std::optional<unsigned long> count() const;

private:
    bool takeLine(std::string& line);
    bool mayRead(bool mayWait) const;
    void read();

    std::string m_what;
    std::string m_path;
    char m_separator;
    int m_descriptor;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0;   ///< of what was not given out
    std::size_t m_scanned = 0; ///< up to here there is no separator
    std::size_t m_end = 0;     ///< of what was read
    bool m_isAtEnd = false;
};

} // namespace Solvane::Tool

#endif
