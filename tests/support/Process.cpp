// Programs started by posix_spawn, and forked children: each reports through a pipe of its own.
#include "Process.h"

#include "Descriptor.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

void check(int error, std::string const& what)
{
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), what);
    }
}

pid_t spawnWritingTo(int descriptor, std::vector<std::string> const& command)
{
    std::vector<char*> arguments;
    for (std::string const& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str())); // not written to
    }
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    check(posix_spawn_file_actions_init(&actions), "posix_spawn_file_actions_init");
    posix_spawn_file_actions_adddup2(&actions, descriptor, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, descriptor, STDERR_FILENO);
    pid_t pid = -1;
    int const error =
        posix_spawnp(&pid, arguments.front(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    check(error, "start " + command.front());
    return pid;
}

std::string readToEnd(int descriptor)
{
    std::string text;
    std::array<char, 4096> bytes;
    for (;;) {
        ssize_t const count = read(descriptor, bytes.data(), bytes.size());
        if (count > 0) {
            text.append(bytes.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

int exitStatusOf(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Both ends of a pipe, for reading and for writing.
std::array<int, 2> newPipe()
{
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    return ends;
}

/// A child's report on its work.
std::string outcomeOf(ForkedProcess::Work const& work)
{
    try {
        return work();
    } catch (std::exception const& thrown) {
        return std::string("thrown: ") + thrown.what();
    } catch (...) {
        return "something was thrown";
    }
}

[[noreturn]] void runAsChild(ForkedProcess::Work const& work, int report)
{
    constexpr unsigned int patience = 50; // seconds; the parent has a watchdog of 60
    alarm(patience);
    std::string const outcome = outcomeOf(work);
    ssize_t const written = write(report, outcome.data(), outcome.size());
    _exit(written == static_cast<ssize_t>(outcome.size()) ? 0 : 1);
}

} // namespace

ProgramOutcome run(std::vector<std::string> const& command)
{
    std::array<int, 2> ends;
    checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    Descriptor const readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);
    pid_t const pid = spawnWritingTo(writeEnd.number(), command);
    writeEnd.close();
    std::string const output = readToEnd(readEnd.number());
    return ProgramOutcome{exitStatusOf(pid), output};
}

Gate::Gate() : Gate(newPipe()) {}

Gate::Gate(std::array<int, 2> const& ends) : m_exit(ends[0]), m_entrance(ends[1]) {}

void Gate::pass()
{
    m_entrance.close();
    char none = 0;
    checked(read(m_exit.number(), &none, 1), "read"); // returns when all writers are gone
}

void Gate::open() { m_entrance.close(); }

ForkedProcess::ForkedProcess(Work const& work) : ForkedProcess(work, newPipe()) {}

ForkedProcess::ForkedProcess(Work const& work, std::array<int, 2> const& ends)
    : m_report(ends[0]), m_pid(-1)
{
    Descriptor const written(ends[1]);
    m_pid = checked(fork(), "fork");
    if (m_pid == 0) {
        runAsChild(work, written.number());
    }
}

ForkedProcess::~ForkedProcess()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

std::string ForkedProcess::complaint()
{
    std::string text;
    std::array<char, 512> bytes{};
    while (ssize_t const count =
               checked(read(m_report.number(), bytes.data(), bytes.size()), "read")) {
        text.append(bytes.data(), static_cast<std::size_t>(count));
    }
    int status = 0;
    checked(waitpid(std::exchange(m_pid, -1), &status, 0), "waitpid");
    if (WIFSIGNALED(status)) {
        return "ended by signal " + std::to_string(WTERMSIG(status));
    }
    return status == 0 ? text : "ended with status " + std::to_string(WEXITSTATUS(status));
}

} // namespace SolvaneTest
