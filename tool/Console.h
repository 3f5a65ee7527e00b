// The tool's two streams: results on standard output, everything else on standard error.
#ifndef SOLVANE_TOOL_CONSOLE_H
#define SOLVANE_TOOL_CONSOLE_H

#include <string>
#include <string_view>

namespace Solvane::Tool {

/// Opens /dev/null for each of the descriptors 0 to 2 that is closed. Otherwise the next socket or
/// file would get that number and receive the output.
void reserveStandardStreams();

/// Standard output, unbuffered: a reader gets each record as soon as it is complete.
class Output {
public:
    /// Writes the whole text; blocks until it is written.
    /// @throws Failure     "outputFailed"
    /// @throws ReaderGone  the reader closed the pipe
    void write(std::string_view text);

    /// Closes the stream: some file systems report write errors only then.
    /// @throws Failure  "outputFailed"
    void finish();
};

/// The reader of standard output is gone, as in `| head`; the tool stops without a message.
class ReaderGone {};

/// Standard error: messages of one line each, and a status line below them.
class Diagnostics {
public:
    enum class Level { quiet, normal, verbose };

    void level(Level level) { m_level = level; }
    Level level() const { return m_level; }

    void error(std::string_view text) const;
    /// Prints a message only with -v.
    void note(std::string_view text) const;
    /// Prints requested output such as statistics: without the program's name, also with -q.
    void plain(std::string_view text) const;

    /// Replaces the status line; an empty text erases it. For terminals only.
    /// @param line  at most as wide as the terminal
    void status(std::string const& line);

private:
    void writeLine(char const* prefix, std::string_view text) const;

    Level m_level = Level::normal;
    std::string m_status; ///< the status line; empty: none
};

} // namespace Solvane::Tool

#endif
