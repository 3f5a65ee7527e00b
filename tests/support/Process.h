// Runs a program and waits for it.
#ifndef SOLVANE_TESTS_SUPPORT_PROCESS_H
#define SOLVANE_TESTS_SUPPORT_PROCESS_H

#include <string>
#include <vector>

namespace SolvaneTest {

/// The exit status and output of a program.
struct Outcome {
    int exitStatus; ///< 128 plus the signal's number if a signal ended it
    std::string output;
};

/// @param command  the program, as a path or found in PATH, and its arguments
/// @throws std::system_error  it cannot be started
Outcome run(std::vector<std::string> const& command);

} // namespace SolvaneTest

#endif
