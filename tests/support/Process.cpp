// Starts the program with posix_spawn and reads its output from a pipe.
#include "Process.h"

#include "Descriptor.h"

#include <array>
#include <cerrno>
#include <system_error>

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

} // namespace

Outcome run(std::vector<std::string> const& command)
{
    std::array<int, 2> ends;
    checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    Descriptor const readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);
    pid_t const pid = spawnWritingTo(writeEnd.number(), command);
    writeEnd.close();
    std::string const output = readToEnd(readEnd.number());
    return Outcome{exitStatusOf(pid), output};
}

} // namespace SolvaneTest
