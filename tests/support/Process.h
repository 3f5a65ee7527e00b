// Runs a program and waits for it.
#ifndef SOLVANE_TESTS_SUPPORT_PROCESS_H
#define SOLVANE_TESTS_SUPPORT_PROCESS_H

#include <string>
#include <vector>

namespace SolvaneTest {

/// How a program ended, and what it wrote to standard output and standard error.
struct Outcome {
    int exitStatus; ///< 128 and the signal's number where a signal ended it
    std::string output;
};

/// @param command  the program, as a path or to be found in PATH, and its arguments
/// @throws std::system_error  it cannot be started
Outcome run(std::vector<std::string> const& command);

} // namespace SolvaneTest

#endif
