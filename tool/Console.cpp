// Reads and writes the standard streams by their descriptors.
#include "Console.h"

#include "Outcome.h"

#include <solvane/session/PlainText.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

// Returns to the start of the line and erases it (ECMA-48).
constexpr char eraseLine[] = "\r\x1B[K";

[[noreturn]] void throwOutputFailure(int error)
{
    if (error == EPIPE) {
        throw ReaderGone();
    }
    throw Failure(Outcome::outputFailed,
                  fmt::format("cannot write to standard output: {}", strerror(error)),
                  "the results are incomplete, run the command again");
}

void waitUntilWritable(int descriptor)
{
    pollfd waited = {descriptor, POLLOUT, 0};
    poll(&waited, 1, -1);
}

/// Writes in one piece, so that lines of several processes do not mix. An error is ignored: there
/// is no other stream to report it on.
void writeToErrors(std::string const& text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace

void reserveStandardStreams()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) {
            // Read-only also for an output: a write must fail, as it would on the closed one.
            // cppcheck-suppress leakReturnValNotUsed ; it stays open as a standard stream
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
        writeLine("solvane-ldap: ", text);
    }
}

void Diagnostics::note(std::string_view text) const
{
    if (m_level == Level::verbose) {
        writeLine("solvane-ldap: ", text);
    }
}

void Diagnostics::plain(std::string_view text) const { writeLine("", text); }

void Diagnostics::status(std::string const& line)
{
    if (line != m_status) {
        m_status = line;
        writeToErrors(eraseLine + m_status);
    }
}

void Diagnostics::writeLine(char const* prefix, std::string_view text) const
{
    writeToErrors(fmt::format("{}{}{}\n{}", m_status.empty() ? "" : eraseLine, prefix,
                              Lookup::oneLine(text), m_status));
}

} // namespace Solvane::Tool
