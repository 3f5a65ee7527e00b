// Disturbances during an operation: a clock that jumps, signals, broken pipes.
#include "Expectations.h"
#include "Sites.h"
#include "SpoiltClock.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include <sys/time.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

using Peer = FaultyServer::Peer;

// Clock

class ClockSite : public HealthySite {
public:
    ClockSite(unsigned int port, long hours, bool alternates)
        : HealthySite(port), m_hours(hours), m_alternates(alternates)
    {
    }
    Came meet(Action& operation) override
    {
        operation.run(m_where); // so that there are connections whose age is judged
        SpoiltClock const scope(m_hours, m_alternates);
        return operation.run(m_where);
    }

private:
    long m_hours;
    bool m_alternates;
};

/// A silent server and a jumping clock: deadlines must hold.
class SilentClockSite : public ServerSite {
public:
    SilentClockSite(Step step, long hours)
        : ServerSite(
              serveUntil(step, [](Peer& peer, auto const&, auto const&) { peer.stayMute(); }), 1),
          m_hours(hours)
    {
    }
    Came meet(Action& operation) override
    {
        SpoiltClock const scope(m_hours, true);
        return operation.run(target());
    }

private:
    long m_hours;
};

class ClockToolSite : public HealthySite {
public:
    ClockToolSite(unsigned int port, long hours, std::string const& preload) : HealthySite(port)
    {
        // LD_PRELOAD takes no path with a blank, so the library is found by its name.
        auto const slash = preload.rfind('/');
        char const* const others = std::getenv("LD_LIBRARY_PATH");
        m_spoilt.toolPrefix = {"/usr/bin/env", "LD_PRELOAD=" + preload.substr(slash + 1),
                               "LD_LIBRARY_PATH=" + preload.substr(0, slash) +
                                   (others == nullptr ? std::string() : ":" + std::string(others)),
                               "SOLVANE_SPOILT_HOURS=" + std::to_string(hours),
                               "ASAN_OPTIONS=verify_asan_link_order=0"};
        m_spoilt.port = port;
    }
    Target target() override { return m_spoilt; }

private:
    Target m_spoilt;
};

constexpr long jumps[] = {5, -5, 24 * 365, -24 * 365}; // hours

std::vector<Case> clockCasesOfTool(Extent const& extent)
{
    std::vector<Case> cases;
    for (long const hours : jumps) {
        Case tried;
        tried.name = std::to_string(hours) + " hours";
        tried.site = [=, port = extent.healthyPort, preload = extent.preload] {
            return std::make_unique<ClockToolSite>(port, hours, preload);
        };
        tried.accepted = exitStatuses({0});
        cases.push_back(tried);
    }
    return cases;
}

std::vector<Case> clockCases(Column column, Extent const& extent)
{
    if (column == Column::tool) {
        return clockCasesOfTool(extent);
    }
    std::vector<Case> cases;
    for (long const hours : jumps) {
        for (bool const alternates : {false, true}) {
            Case tried;
            tried.name =
                std::to_string(hours) + (alternates ? " hours, alternating" : " hours, and stays");
            tried.site = [=, port = extent.healthyPort] {
                return std::make_unique<ClockSite>(port, hours, alternates);
            };
            tried.accepted = success(column);
            if (column == Column::query && alternates) { // its deadline is a time of day
                tried.acceptedAsLimit = {"failed"};
            }
            cases.push_back(tried);
        }
        for (Step const step : stepsOf(column)) {
            bool const isThinnedOut = extent.stride > 1 && hours != jumps[0];
            if (isThinnedOut || column == Column::query) {
                continue; // a query's deadline comes hours later under a clock that goes back
            }
            Case tried;
            tried.name = std::to_string(hours) + " hours, alternating, silent " + nameOf(step);
            tried.site = [=] { return std::make_unique<SilentClockSite>(step, hours); };
            tried.accepted = troubleIn(step, column, Trouble::silent);
            cases.push_back(tried);
        }
    }
    return cases;
}

Fault clockJumps()
{
    return {"clock", "The system clock jumps by hours and years, once or whenever it is read.",
            always, clockCases,
            "The deadline of a query is a time of day. If the clock is set forward, the query ends "
            "early; if it is set back, it waits longer for a silent server."};
}

// Signals

/// During its lifetime, SIGALRM arrives every millisecond and interrupts system calls.
class SignalStorm {
public:
    SignalStorm()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        checked(sigaction(SIGALRM, &action, &m_before), "sigaction");
        setEvery(1000);
    }
    ~SignalStorm()
    {
        setEvery(0);
        sigaction(SIGALRM, &m_before, nullptr);
    }
    SignalStorm(SignalStorm const&) = delete;
    SignalStorm& operator=(SignalStorm const&) = delete;

private:
    static void setEvery(suseconds_t microseconds)
    {
        itimerval const every = {{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }

    struct sigaction m_before = {};
};

class StormSite : public HealthySite {
public:
    using HealthySite::HealthySite;
    Came meet(Action& operation) override
    {
        SignalStorm const storm;
        Came all;
        for (int i = 0; i < 20; ++i) {
            Came const came = operation.run(m_where);
            all.insert(all.end(), came.begin(), came.end());
        }
        return all;
    }
};

/// A signal must neither end a wait early nor restart it.
class SilentStormSite : public ServerSite {
public:
    explicit SilentStormSite(Step step)
        : ServerSite(
              serveUntil(step, [](Peer& peer, auto const&, auto const&) { peer.stayMute(); }), 1)
    {
    }
    Came meet(Action& operation) override
    {
        SignalStorm const storm;
        auto const start = std::chrono::steady_clock::now();
        Came const came = operation.run(target());
        m_isEarly = std::chrono::steady_clock::now() - start < std::chrono::milliseconds(900);
        return came;
    }
    std::string violation() override
    {
        return m_isEarly ? "a wait ended early" : ServerSite::violation();
    }

private:
    bool m_isEarly = false;
};

/// The tool, stopped and continued every few milliseconds.
class StoppedToolSite : public HealthySite {
public:
    using HealthySite::HealthySite;
    Target target() override
    {
        Target where = m_where;
        where.toolPrefix = {"/bin/sh", "-c",
                            "\"$@\" & tool=$!; while kill -STOP $tool 2>/dev/null; do "
                            "kill -CONT $tool 2>/dev/null; sleep 0.004; done; wait $tool",
                            "sh"};
        return where;
    }
};

std::vector<Case> signalCases(Column column, Extent const& extent)
{
    unsigned int const port = extent.healthyPort;
    Case tried;
    if (column == Column::tool) {
        tried.name = "SIGSTOP and SIGCONT every 4 ms";
        tried.site = [port] { return std::make_unique<StoppedToolSite>(port); };
        tried.accepted = success(column);
        return {tried};
    }
    tried.name = "twenty times, healthy server";
    tried.site = [port] { return std::make_unique<StormSite>(port); };
    tried.accepted = success(column);
    std::vector<Case> cases = {tried};
    for (Step const step : stepsOf(column)) {
        tried.name = std::string("silent ") + nameOf(step);
        tried.site = [step] { return std::make_unique<SilentStormSite>(step); };
        tried.accepted = troubleIn(step, column, Trouble::silent);
        cases.push_back(tried);
    }
    return cases;
}

Fault signals()
{
    return {"signals",
            "A signal every millisecond, with a handler that does not restart system calls; the "
            "tool is stopped and continued.",
            always, signalCases};
}

// SIGPIPE

/// Resets a connection and lets the operation continue only afterwards: then each write of the
/// client, up to the unbind of the last handle, meets a broken pipe.
class BrokenPipeSite : public ServerSite {
public:
    BrokenPipeSite() : ServerSite([this](Peer& peer) { resetAfterBind(peer); }, 10) {}

    Target target() override
    {
        Target where = ServerSite::target();
        where.afterBind = [this] {
            while (!m_hasReset) {
                usleep(1000);
            }
        };
        return where;
    }

private:
    void resetAfterBind(Peer& peer)
    {
        peer.send(joined(repliesTo(peer.receive())));
        peer.pause(std::chrono::milliseconds(20)); // the client is to read the answer first
        peer.reset();
        m_hasReset = true;
    }

    std::atomic<bool> m_hasReset{false};
};

Fault brokenPipe()
{
    return {"sigpipe",
            "The connection is reset after the bind; every later write meets a broken pipe, with "
            "SIGPIPE at its default action.",
            always, [](Column column, Extent const&) {
                Case tried;
                tried.name = "reset behind the bind";
                tried.site = [] { return std::make_unique<BrokenPipeSite>(); };
                tried.accepted = anyOf({brokenBeforeRequest(column),
                                        troubleIn(Step::whoAmI, column, Trouble::broken)});
                if (column == Column::bind) {
                    tried.accepted = success(column);
                } else if (column == Column::verify) {
                    tried.accepted =
                        anyOf({success(column), troubleIn(Step::bind, column, Trouble::broken)});
                } else if (!isLookup(column) && column != Column::tool) {
                    tried.accepted = brokenBeforeRequest(column);
                }
                return std::vector<Case>{tried};
            }};
}

} // namespace

std::vector<Fault> interruptionFaults() { return {clockJumps(), signals(), brokenPipe()}; }

} // namespace SolvaneTest
