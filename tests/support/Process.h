// Programs that a test runs, and children that it forks.
#ifndef SOLVANE_TESTS_SUPPORT_PROCESS_H
#define SOLVANE_TESTS_SUPPORT_PROCESS_H

#include "Descriptor.h"

#include <array>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace SolvaneTest {

/// The exit status and output of a program.
struct ProgramOutcome {
    int exitStatus; ///< 128 plus the signal's number if a signal ended it
    std::string output;
};

/// @param command  the program, as a path or found in PATH, and its arguments
/// @throws std::system_error  it cannot be started
ProgramOutcome run(std::vector<std::string> const& command);

/// How often a test repeats a fork that must never fail.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int rounds = 15; // a fork takes long under a sanitizer
#else
constexpr int rounds = 100;
#endif

/// Whether a child may allocate if other threads of its parent did so at the time of the fork.
/// AddressSanitizer's allocator (of g++ 12) leaves its locks as they were.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool allocatorForks = false;
#else
constexpr bool allocatorForks = true;
#endif

/// A gate at which many processes wait; create it before they are forked.
class Gate {
public:
    Gate();

    /// For the children: returns when the parent has opened it, or is gone.
    void pass();
    /// For the parent.
    void open();

private:
    explicit Gate(std::array<int, 2> const& ends);

    Descriptor m_exit;
    Descriptor m_entrance;
};

/// A child process that runs a part of the test and exits without the rest of it. It is killed if
/// it takes too long, and at the latest by the destructor.
class ForkedProcess {
public:
    /// What is wrong; empty if nothing is.
    using Work = std::function<std::string()>;

    explicit ForkedProcess(Work const& work);
    ForkedProcess(ForkedProcess const&) = delete;
    ForkedProcess& operator=(ForkedProcess const&) = delete;
    ~ForkedProcess();

    /// Waits for the child; returns what the work returned or threw, or how else the child ended.
    std::string complaint();

private:
    ForkedProcess(Work const& work, std::array<int, 2> const& ends);

    Descriptor m_report; ///< the end that the parent reads
    pid_t m_pid;         ///< -1 once it has ended
};

} // namespace SolvaneTest

#endif
