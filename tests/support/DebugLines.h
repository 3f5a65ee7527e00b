// Collects the library's debug output, instead of printing it.
#ifndef SOLVANE_TESTS_SUPPORT_DEBUG_LINES_H
#define SOLVANE_TESTS_SUPPORT_DEBUG_LINES_H

#include <string>
#include <vector>

namespace SolvaneTest {

/// Sets the debug mask and collects the lines during its lifetime; one object at a time.
class DebugLines {
public:
    explicit DebugLines(unsigned int mask);
    ~DebugLines();
    DebugLines(DebugLines const&) = delete;
    DebugLines& operator=(DebugLines const&) = delete;

    /// Each line as `unit:line function flags: text`.
    std::vector<std::string> const& all() const { return m_lines; }
    void add(std::string const& line) { m_lines.push_back(line); }

private:
    unsigned int m_maskBefore;
    std::vector<std::string> m_lines;
};

/// The prefix of an error line of the calling thread: "tid=", its number and a blank.
std::string tid();

} // namespace SolvaneTest

#endif
