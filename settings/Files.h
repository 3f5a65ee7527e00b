// Reads and writes the files given on the command line.
#ifndef SOLVANE_TOOL_FILES_H
#define SOLVANE_TOOL_FILES_H

#include "Outcome.h"

#include <solvane/lookup/LDAPLookup.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

struct stat;

namespace Solvane::Tool {

/// Owns an open file descriptor; the destructor closes it.
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

/// A group's number; none if there is no such group, or none can be looked up.
std::optional<gid_t> groupNamed(std::string const& name);

/// The error for a file that cannot be read.
/// @param what   its role, as "the template file"
/// @param error  errno
Failure unusableFile(std::string const& what, std::string const& path, int error);

/// Some programs begin a text with it (U+FEFF in UTF-8). It is no part of the text.
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

/// Reads a whole text file into memory, without a byte order mark.
/// @throws Failure  "configuration": the file cannot be read
std::string readFile(std::string const& what, std::string const& path);

/// The error for a file that cannot be written.
/// @param error  errno
Failure unwritableFile(std::string const& path, int error);

/// Writes a text into an open file.
/// @param path  of the file, for the message
/// @throws Failure  "output failed"
void writeWhole(int descriptor, std::string const& path, std::string_view text);

/// Writes a file of mode 600 that appears at once as a whole.
/// @param replaces  an existing file is replaced. Its group stays, and so does its mode if others
///                  have no access and the group cannot write
/// @return what of a replaced file is not kept, as "the mode 644 is not kept": then the mode is 600;
///         empty if all is
/// @throws Failure  "usage": there is one already, or something else than a file; "output failed"
std::string writeFile(std::string const& path, std::string const& text, bool replaces);

/// Who may read a file with a password besides its owner.
enum class Privacy {
    owner, ///< only a service's group, whose members read the file of another owner
    group, ///< a group of this process: it is the service, or root checks for the service
};

/// Requires that others can neither read nor write a file with a password, that its group cannot
/// write it, and that it can read it only as `privacy` allows. A group with the name `serviceGroup`
/// is always the service's.
/// @param what    the file, for the message
/// @param status  of the open file: another file may take its name at any time
/// @throws Failure  "configuration"
void requirePrivate(std::string const& what, struct stat const& status, Privacy privacy);

/// The group of the service as its package creates it.
constexpr char serviceGroup[] = "solvane-ldap";

/// Whether a read of the descriptor would not block; waits at most `milliseconds`, -1 for ever.
bool hasInput(int descriptor, int milliseconds);

/// Blocks until the descriptor can be read; returns true.
bool waitForInput(int descriptor);

/// The text without one trailing newline.
std::string withoutLastNewline(std::string text);

/// Reads the lines of a file, or of standard input for "-". Lines may have any length. A byte order
/// mark before the first one is dropped.
class LineReader {
public:
    static constexpr std::size_t longestLine = std::size_t{128}
                                               << 20U; ///< bytes, and up to twice as many

    /// @param what       the file's role, as "the file of keys"
    /// @param separator  ends a line
    /// @throws Failure  "configuration": the file cannot be opened
    LineReader(std::string const& what, std::string const& path, char separator);
    ~LineReader();
    LineReader(LineReader const&) = delete;
    LineReader& operator=(LineReader const&) = delete;

    /// Reads the next line, without its separator; the last line may lack one. Returns `nothing` if
    /// no whole line has arrived and `mayWait` is false.
    /// @throws Failure  "configuration": the file cannot be read, or a line is longer than `longestLine`
    LDAPLookup::Supply next(std::string& line, bool mayWait);

    int descriptor() const { return m_descriptor; }
    /// Whether it is a regular file, whose reads never block.
    bool isRegular() const;
    /// The number of lines, to be asked before the first read; none unless it is a regular file.
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
    std::size_t m_begin = 0;   ///< of the unread part
    std::size_t m_scanned = 0; ///< no separator from m_begin up to here
    std::size_t m_end = 0;     ///< of the bytes read
    bool m_isAtEnd = false;
    bool m_isFirst = true; ///< the next line is the first
};

} // namespace Solvane::Tool

#endif
