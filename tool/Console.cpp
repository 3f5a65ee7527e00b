// Standard streams by their descriptors.
#include "Console.h"

#include "Failure.h"
#include "Text.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

[[noreturn]] void throwOutputFailure(int error)
{
    if (error == EPIPE) {
        throw ReaderGone();
    }
    throw Failure(Outcome::outputFailed,
                  fmt::format("standard output cannot be written: {}", strerror(error)),
                  "the results are incomplete, run it again");
}

void waitUntilWritable(int descriptor)
{
    pollfd waited = {descriptor, POLLOUT, 0};
    poll(&waited, 1, -1);
}

void writeLine(std::string_view text) { fmt::print(stderr, "solvane-ldap: {}\n", oneLine(text)); }

} // namespace

void reserveStandardStreams()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) {
            // Read-only, also in place of an output: writing there must fail as it would have.
            (void)open("/dev/null", O_RDONLY); // NOLINT(cppcoreguidelines-pro-type-vararg)
        }
    }
}

void Output::write(std::string_view text)
{
    while (!text.empty()) {
        ssize_t const written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::string_view::size_type>(written));
        } else if (errno == EAGAIN) {
            waitUntilWritable(STDOUT_FILENO);
        } else if (errno != EINTR) {
            throwOutputFailure(errno);
        }
    }
}

void Output::finish()
{
    if (close(STDOUT_FILENO) != 0 && errno != EINTR) {
        throwOutputFailure(errno);
    }
}

void Diagnostics::error(std::string_view text) const
{
    if (m_level != Level::quiet) {
        writeLine(text);
    }
}

void Diagnostics::note(std::string_view text) const
{
    if (m_level == Level::verbose) {
        writeLine(text);
    }
}

} // namespace Solvane::Tool
