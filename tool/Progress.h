// Shows the progress of a long run on a terminal, and its figures at the end.
#ifndef SOLVANE_TOOL_PROGRESS_H
#define SOLVANE_TOOL_PROGRESS_H

#include "Console.h"
#include "Options.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// A line on standard error with bar or count, rate and time left. Shown only if standard error is
/// a terminal, standard output is not, and -q is not set; starts after half a second. Diagnostics
/// appear above it.
class Progress {
public:
    /// @param total  the amount of work, if known
    Progress(Diagnostics& diagnostics, std::optional<unsigned long> total);
    /// Erases the line.
    ~Progress();
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    /// Updates the line if it is due. Cheap; call it for each piece of work.
    /// @param done  total work done so far
    void update(unsigned long done)
    {
        if (m_isShown && done >= m_nextLook) {
            look(done);
        }
    }
    /// Erases the line and shows nothing afterwards.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    void look(unsigned long done);
    std::string lineFor(unsigned long done, double seconds, unsigned int columns) const;

    Diagnostics& m_diagnostics;
    std::optional<unsigned long> m_total;
    bool m_isShown;
    unsigned long m_step = 1;     ///< pieces of work between two readings of the clock
    unsigned long m_nextLook = 0; ///< pieces of work at which the clock is read next
    Clock::time_point m_start;
    Clock::time_point m_lastLook;
    Clock::time_point m_nextLine;
};

/// How often something happened in a run.
struct Count {
    char const* name;      ///< in JSON
    char const* statement; ///< behind the number, as "exist"
    unsigned long number;
};

/// Prints the figures of --stats for a run that began at `start`, if they are asked for.
void printCounts(Diagnostics const& diagnostics, Stats stats, std::vector<Count> const& counts,
                 std::chrono::steady_clock::time_point start);

} // namespace Solvane::Tool

#endif
