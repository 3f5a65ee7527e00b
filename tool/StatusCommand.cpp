// Reads the metrics of a running service, once or again and again.
#include "Commands.h"

#include "Files.h"
#include "OptionList.h"
#include "SettingValues.h"
#include "StatusReport.h"
#include "Text.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds timeLimit(10); ///< of one report
constexpr std::size_t largestReport = std::size_t{16} * 1024 * 1024;

constexpr char footer[] =
    R"(The socket is the stats_socket of solvane-ldapd. Exit status: 0 shown, 75 no service answers, 77 not
permitted, 78 another program answers.)";

Endpoint socketIn(std::string const& text)
{
    return endpointIn(text.rfind('/', 0) == 0 ? "unix:" + text : text);
}

/// CLI11 passes "true" for a flag without a value.
unsigned int intervalIn(std::string const& text)
{
    return text == "true" ? 1 : numberIn(text, 1, longestSeconds);
}

[[noreturn]] void fail(Endpoint const& endpoint, int error)
{
    bool const isDenied = error == EACCES || error == EPERM;
    throw Failure(isDenied ? Outcome::denied : Outcome::tryLater,
                  fmt::format("no statistics from {}: {}", endpoint.text(),
                              error == EAGAIN || error == EINPROGRESS ? "no answer in time"
                                                                      : strerror(error)),
                  isDenied ? "use an account that may connect to the socket"
                           : "check that solvane-ldapd runs, and that this is its stats_socket");
}

int connectTo(Descriptor const& socket, Endpoint const& endpoint)
{
    if (endpoint.address) {
        return connect(socket.get(), endpoint.address->socketAddress(), endpoint.address->size());
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    endpoint.path.copy(address.sun_path, sizeof address.sun_path - 1); // its length was checked
    return connect(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
}

/// The answer of the service, with the header of HTTP.
std::string answerOf(Endpoint const& endpoint)
{
    Descriptor const socket(::socket(endpoint.address ? endpoint.address->family() : AF_UNIX,
                                     SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval const limit = {timeLimit.count(), 0};
    constexpr std::string_view request = "GET /metrics HTTP/1.0\r\n\r\n";
    if (!socket.isOpen() ||
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
        connectTo(socket, endpoint) != 0 ||
        send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
        fail(endpoint, errno);
    }
    std::string answer;
    std::array<char, 16384> part{};
    auto const end = Clock::now() + timeLimit;
    for (;;) {
        ssize_t const count = recv(socket.get(), part.data(), part.size(), 0);
        if (count == 0) {
            return answer;
        }
        if (count < 0 && errno != EINTR && errno != ECONNRESET) {
            fail(endpoint, errno);
        }
        if (count < 0 && errno == ECONNRESET) {
            return answer; // another program does not like the request
        }
        answer.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (answer.size() > largestReport || Clock::now() >= end) {
            fail(endpoint, EAGAIN);
        }
    }
}

StatusReport reportOf(Endpoint const& endpoint)
{
    std::string const answer = answerOf(endpoint);
    auto const head = answer.find("\r\n\r\n");
    auto report = head == std::string::npos
                      ? std::nullopt
                      : StatusReport::parse(std::string_view(answer).substr(head + 4));
    if (!report) {
        throw Failure(Outcome::configuration,
                      fmt::format("{} is not a stats_socket of solvane-ldapd", endpoint.text()),
                      "name the one in service.conf");
    }
    return std::move(*report);
}

/// Seconds since 1970.
double secondsNow()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

void StatusCommand::declareOn(OptionList& options)
{
    options.value("SOCKET", m_socket, "", "The service's stats_socket").showsDefault();
    options.flag("--watch", m_interval, "[=S]",
                 "Show it again and again, every second or every S seconds");
    options.footer(footer);
}

int StatusCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    bool const isJson = common.format() == "json";
    if (!isJson && common.format() != "text") {
        throw Failure(Outcome::usage,
                      fmt::format("status does not support --format {}", common.format()),
                      "choose text or json");
    }
    auto const endpoint = explainedBy("SOCKET", Outcome::usage, [&] { return socketIn(m_socket); });
    std::optional<std::chrono::seconds> interval;
    if (!m_interval.empty()) {
        interval = std::chrono::seconds(
            explainedBy("--watch", Outcome::usage, [&] { return intervalIn(m_interval); }));
    }
    // A terminal shows each report in the place of the one before.
    std::string const clear = isatty(STDOUT_FILENO) == 1 ? "\033[H\033[J" : "";
    auto next = Clock::now();
    auto readAt = next;
    std::optional<StatusReport> before;
    for (bool isFirst = true;; isFirst = false) {
        try {
            StatusReport report = reportOf(endpoint);
            auto const now = Clock::now();
            std::chrono::duration<double> const since = now - readAt;
            std::string const shown =
                isJson ? report.json(secondsNow()) + common.recordEnd()
                       : report.text(before ? &*before : nullptr, since.count(), secondsNow());
            output.write(!interval || isJson ? shown
                         : !clear.empty()    ? clear + shown
                                             : (isFirst ? "" : "\n") + shown);
            before = std::move(report);
            readAt = now;
        } catch (Failure const& failure) {
            if (!interval || isFirst) {
                throw;
            }
            diagnostics.error(failure.what()); // the service may be restarting
        }
        if (!interval) {
            return exitStatusOf(Outcome::found);
        }
        next = std::max(next + *interval, Clock::now());
        std::this_thread::sleep_until(next);
    }
}

} // namespace Solvane::Tool
