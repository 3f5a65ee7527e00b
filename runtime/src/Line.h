// Log lines: control characters are escaped, and each line is written with one system call.
#ifndef SOLVART_SRC_LINE_H
#define SOLVART_SRC_LINE_H

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

namespace Solvane {

/// Appends `text` with control characters escaped, so that it stays one line.
inline void appendEscaped(std::string& line, std::string const& text)
{
    for (char const c : text) {
        unsigned char const byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            char const* const digits = "0123456789abcdef";
            line += "\\x";
            line += digits[byte >> 4];
            line += digits[byte & 0x0f];
        } else {
            line += c;
        }
    }
}

/// Formats `arguments`; returns the format itself if that fails.
__attribute__((format(printf, 1, 0))) inline std::string formatted(char const* format,
                                                                   va_list arguments)
{
    char* text = nullptr;
    int const length = ::vasprintf(&text, format, arguments);
    if (length < 0) {
        return format;
    }
    std::unique_ptr<char, decltype(&std::free)> const owner(text, &std::free);
    return std::string(text, static_cast<std::size_t>(length));
}

/// Writes `line` and a newline to standard error with one system call, so that lines of several
/// threads do not mix. Ignores write errors, because there is no place to report them.
inline void writeLine(std::string& line)
{
    line += '\n';
    std::size_t written = 0;
    while (written < line.size()) {
        ssize_t const rc = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (rc >= 0) {
            written += static_cast<std::size_t>(rc); // a signal may interrupt a long write
        } else if (errno != EINTR) {
            return;
        }
    }
}

/// Writes the line that `compose` returns for the formatted text. Preserves `errno` and never throws,
/// so that logging does not affect the caller.
template <typename Compose>
__attribute__((format(printf, 1, 0))) void reportLine(char const* format, va_list arguments,
                                                      Compose const& compose) noexcept
{
    int const errorNumber = errno;
    try {
        std::string line = compose(formatted(format, arguments));
        writeLine(line);
    } catch (...) {
        static char const lost[] = "(line lost: out of memory)\n";
        [[maybe_unused]] ssize_t const rc = ::write(STDERR_FILENO, lost, sizeof(lost) - 1);
    }
    errno = errorNumber;
}

} // namespace Solvane

#endif
