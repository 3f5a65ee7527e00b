// The tool's two streams: results on standard output, everything else on standard error.
#ifndef SOLVANE_TOOL_CONSOLE_H
#define SOLVANE_TOOL_CONSOLE_H

#include <string>
#include <string_view>

namespace Solvane::Tool {

/// Makes descriptors 0 to 2 exist, so that no socket or file takes the place of a stream that the
/// caller closed and receives its text.
void reserveStandardStreams();

/// Standard output, unbuffered: whoever reads it gets each record when it is complete.
class Output {
public:
    /// Writes everything or throws.
    /// @throws Failure  "outputFailed"
    /// @throws ReaderGone
    void write(std::string_view text);

    /// Closes the stream, when a file system says last whether it kept what was written.
    /// @throws Failure  "outputFailed"
    void finish();
};

/// Nobody reads the output any more (`| head`): no reason for a message.
class ReaderGone {};

/// Standard error: one line each, with the program's name; below them a status line that changes.
class Diagnostics {
public:
    enum class Level { quiet, normal, verbose };

    void level(Level level) { m_level = level; }
    Level level() const { return m_level; }

    void error(std::string_view text) const;
    /// Shown with -v only.
    void note(std::string_view text) const;
    /// What was asked for, as figures: without the program's name, and in spite of -q.
    void plain(std::string_view text) const;

    /// Shows a line that the next one takes the place of, without the program's name; empty erases
    /// it. For a terminal only, and no wider than it.
    void status(std::string const& line);

private:
    void writeLine(char const* prefix, std::string_view text) const;

    Level m_level = Level::normal;
    std::string m_status; ///< what stands below the lines
};

} // namespace Solvane::Tool

#endif
