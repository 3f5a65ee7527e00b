// How far a long run has come, on a terminal.
#ifndef SOLVANE_TOOL_PROGRESS_H
#define SOLVANE_TOOL_PROGRESS_H

#include "Console.h"

#include <chrono>
#include <optional>
#include <string>

namespace Solvane::Tool {

/// A line on standard error: bar or count, rate, and time left. Only where standard error is a
/// terminal, nothing asked for silence, and the results go elsewhere; not in the first half second.
/// Diagnostics that are written meanwhile stand above it.
class Progress {
public:
    /// @param total  how much there is to do, where that is known
    Progress(Diagnostics& diagnostics, std::optional<unsigned long> total);
    /// Erases the line.
    ~Progress();
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    /// @param done  how much is done by now. Cheap: to be called for each piece of work.
    void update(unsigned long done)
    {
        if (m_isShown && done >= m_nextLook) {
            look(done);
        }
    }
    /// Erases the line; nothing is shown any more.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    void look(unsigned long done);
    std::string lineFor(unsigned long done, double seconds, unsigned int columns) const;

    Diagnostics& m_diagnostics;
    std::optional<unsigned long> m_total;
    bool m_isShown;
    unsigned long m_step = 1;     ///< pieces of work between two looks at the clock
    unsigned long m_nextLook = 0; ///< number of pieces at which the clock is looked at
    Clock::time_point m_start;
    Clock::time_point m_lastLook;
    Clock::time_point m_nextLine;
};

} // namespace Solvane::Tool

#endif
