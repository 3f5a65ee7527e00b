// Connections that are refused, not answered, or end at the wrong time.
#include "Expectations.h"
#include "Sites.h"

#include "ScriptedServer.h"
#include "Slapd.h"

namespace SolvaneTest {

namespace {

using Peer = FaultyServer::Peer;

// No connection

/// A fault at a port; the repaired server has another port.
class PortSite : public Site {
public:
    PortSite(unsigned int port, unsigned int healthyPort) : m_port(port), m_healthyPort(healthyPort)
    {
    }
    Target target() override { return at(m_port); }
    Target mended() override { return at(m_healthyPort); }

private:
    static Target at(unsigned int port)
    {
        Target where;
        where.port = port;
        where.patience = 1;
        return where;
    }

    unsigned int m_port;
    unsigned int m_healthyPort;
};

class RefusedSite : private RefusingPort, public PortSite {
public:
    explicit RefusedSite(unsigned int healthyPort) : PortSite(RefusingPort::number(), healthyPort)
    {
    }
};

class BlackHoleSite : private HangingPort, public PortSite {
public:
    explicit BlackHoleSite(unsigned int healthyPort) : PortSite(HangingPort::number(), healthyPort)
    {
    }
};

Fault refused()
{
    return {"refused", "No process listens on the port.", always,
            [](Column column, Extent const& extent) {
                Case tried;
                tried.name = "refused";
                tried.site = [port = extent.healthyPort] {
                    return std::make_unique<RefusedSite>(port);
                };
                tried.accepted = connectTrouble(column, Trouble::broken);
                return std::vector<Case>{tried};
            }};
}

Fault blackHole()
{
    return {"black-hole", "Connection requests (SYN) are not answered.", always,
            [](Column column, Extent const& extent) {
                Case tried;
                tried.name = "full queue";
                tried.site = [port = extent.healthyPort] {
                    return std::make_unique<BlackHoleSite>(port);
                };
                tried.accepted = connectTrouble(column, Trouble::silent);
                return std::vector<Case>{tried};
            }};
}

// Silence

/// A real directory for the whole program. Call it first while there are no other threads.
Slapd& slapd()
{
    static Slapd server({"--users", "2"});
    return server;
}

/// It stops, before it accepts or between bind and request.
class PausedSite : public Site {
public:
    enum class Moment { beforeAccept, afterBind };

    PausedSite(Moment moment, Column column, unsigned int healthyPort)
        : m_moment(moment), m_column(column), m_healthyPort(healthyPort)
    {
    }

    Target target() override
    {
        Target where = running();
        if (m_moment == Moment::beforeAccept) {
            slapd().pause();
        } else {
            where.afterBind = [] { slapd().pause(); };
        }
        return where;
    }

    Came meet(Action& operation) override
    {
        if (m_moment == Moment::afterBind && isLookup(m_column)) {
            operation.run(running()); // leaves a bound connection behind
            slapd().pause();
            return operation.run(running());
        }
        return operation.run(target());
    }

    Target mended() override
    {
        slapd().resume();
        Target where = running();
        // The first request may have been carried out meanwhile, and a stream finds other users.
        bool const isOnlyRead = requestOf(m_column) == Step::search || m_column == Column::compare;
        if (!isOnlyRead && requestOf(m_column) != Step::other) {
            where.port = m_healthyPort;
        }
        return where;
    }

private:
    Target running() const
    {
        Target where;
        where.port = slapd().port();
        where.patience = 2;
        return where;
    }

    Moment m_moment;
    Column m_column;
    unsigned int m_healthyPort;
};

std::vector<Case> pausedCase(PausedSite::Moment moment, Column column, Extent const& extent)
{
    slapd();
    Case tried;
    tried.name = "SIGSTOP";
    tried.site = [moment, column, port = extent.healthyPort] {
        return std::make_unique<PausedSite>(moment, column, port);
    };
    Step const step = moment == PausedSite::Moment::beforeAccept ? Step::bind : requestOf(column);
    tried.accepted = troubleIn(step, column, Trouble::silent);
    return {tried};
}

std::string withoutSlapd()
{
    return Slapd::isInstalled() ? std::string() : "slapd is not installed";
}

Fault pausedBeforeAccept()
{
    return {"paused-before-accept",
            "A real slapd is stopped (SIGSTOP); the kernel still accepts connections.",
            [](Column) { return withoutSlapd(); },
            [](Column column, Extent const& extent) {
                return pausedCase(PausedSite::Moment::beforeAccept, column, extent);
            }};
}

Fault pausedAfterBind()
{
    return {"paused-after-bind", "A real slapd is stopped after the bind and before the request.",
            [](Column column) {
                if (requestOf(column) == Step::other) {
                    return std::string("no request follows the bind");
                }
                return column == Column::tool
                           ? std::string(
                                 "a separate process cannot be stopped at that moment; see silent")
                           : withoutSlapd();
            },
            [](Column column, Extent const& extent) {
                return pausedCase(PausedSite::Moment::afterBind, column, extent);
            }};
}

Fault silent()
{
    return {"silent", "The server accepts, and stops answering, at each step in turn.", always,
            [](Column column, Extent const&) {
                std::vector<Case> cases;
                for (Step const step : stepsOf(column)) {
                    auto const script = serveUntil(
                        step, [](Peer& peer, auto const&, auto const&) { peer.stayMute(); });
                    cases.push_back(serverCase(nameOf(step), script,
                                               troubleIn(step, column, Trouble::silent), 1));
                }
                return cases;
            }};
}

// TLS

class SecureSite : public ServerSite {
public:
    SecureSite(FaultyServer::Script script, unsigned int healthyPort)
        : ServerSite(std::move(script), 1), m_healthyPort(healthyPort)
    {
    }
    Target target() override
    {
        Target where = ServerSite::target();
        where.isSecure = true;
        return where;
    }
    Target mended() override
    {
        Target where;
        where.port = m_healthyPort;
        return where;
    }

private:
    unsigned int m_healthyPort;
};

Case secureCase(char const* name, FaultyServer::Script const& script, Accepted const& accepted,
                Extent const& extent)
{
    Case made;
    made.name = name;
    made.site = [script, port = extent.healthyPort] {
        return std::make_unique<SecureSite>(script, port);
    };
    made.accepted = accepted;
    return made;
}

FaultyServer::Script sendingAndMute(std::string const& bytes)
{
    return [bytes](Peer& peer) {
        peer.send(bytes);
        peer.stayMute();
    };
}

/// Engine and tool distinguish a refused handshake from a broken connection.
Accepted refusedHandshake(Column column, Accepted const& broken)
{
    switch (column) {
    case Column::engine:
    case Column::submit:
    case Column::verify:
        return {"Refused -11"};
    case Column::tool:
        return {"exit 77"};
    default:
        return broken;
    }
}

Fault silentTls()
{
    return {"tls",
            "An ldaps:// server that is silent, closes the connection, or does not speak TLS.",
            always, [](Column column, Extent const& extent) {
                Accepted const late = connectTrouble(column, Trouble::silent);
                Accepted const broken = connectTrouble(column, Trouble::broken);
                std::string const halfRecord("\x16\x03\x03\x00\x7a\x02\x00", 7);
                Accepted const refused = refusedHandshake(column, broken);
                std::string const alert("\x15\x03\x03\x00\x02\x02\x28", 7); // handshake failure
                return std::vector<Case>{
                    secureCase("silent", sendingAndMute(""), late, extent),
                    secureCase("half a record", sendingAndMute(halfRecord), late, extent),
                    secureCase("alert", sendingAndMute(alert), refused, extent),
                    secureCase("plain text", sendingAndMute("HTTP/1.1 400 Bad Request\r\n\r\n"),
                               broken, extent),
                    secureCase("plain LDAP", sendingAndMute(finalResponse(Step::bind, 1, 0)),
                               broken, extent),
                    secureCase(
                        "closed", [](Peer&) {}, broken, extent),
                    secureCase(
                        "reset", [](Peer& peer) { peer.reset(); }, broken, extent),
                };
            }};
}

// Ends

enum class End { reset, halfClosed, closed };

void endNow(Peer& peer, End end)
{
    if (end == End::reset) {
        peer.reset();
    } else if (end == End::halfClosed) {
        peer.endSending();
        peer.stayMute();
    }
}

enum class Moment { beforeAnswer, amidAnswer, afterAnswer };

FaultyServer::Script endingAt(Step step, Moment moment, End end)
{
    return serveUntil(step, [=](Peer& peer, std::vector<std::string> const& replies, auto const&) {
        std::string const all = joined(replies);
        if (moment == Moment::amidAnswer) {
            peer.send(all.substr(0, all.size() - 5));
        } else if (moment == Moment::afterAnswer) {
            peer.send(all);
        }
        endNow(peer, end);
    });
}

Accepted acceptedAt(Step step, Moment moment, End end, Column column)
{
    Accepted const broken = troubleIn(step, column, Trouble::broken);
    if (moment != Moment::afterAnswer) {
        return broken;
    }
    bool const isLast = step == stepsOf(column).back();
    Accepted const after = isLast ? success(column)
                                  : anyOf({brokenBeforeRequest(column),
                                           troubleIn(requestOf(column), column, Trouble::broken)});
    // A reset may overtake what was sent before it. Of the engine's keys, one may meet the end of
    // two connections.
    bool const mayBreak = end == End::reset || usesEngine(column);
    return mayBreak ? anyOf({after, broken}) : after;
}

std::vector<Case> endings(Column column, End end)
{
    constexpr char const* moments[] = {"before the answer to ", "amid the answer to ",
                                       "after the answer to "};
    Accepted const atOnce = anyOf(
        {connectTrouble(column, Trouble::broken), troubleIn(Step::bind, column, Trouble::broken)});
    std::vector<Case> cases = {serverCase(
        "at the connect", [end](Peer& peer) { endNow(peer, end); }, atOnce)};
    for (Step const step : stepsOf(column)) {
        for (Moment const moment :
             {Moment::beforeAnswer, Moment::amidAnswer, Moment::afterAnswer}) {
            cases.push_back(
                serverCase(std::string(moments[static_cast<int>(moment)]) + nameOf(step),
                           endingAt(step, moment, end), acceptedAt(step, moment, end, column)));
        }
    }
    return cases;
}

Fault ending(char const* name, char const* meaning, End end)
{
    return {name, meaning, always,
            [end](Column column, Extent const&) { return endings(column, end); }};
}

} // namespace

std::vector<Fault> connectionFaults()
{
    return {refused(),
            blackHole(),
            pausedBeforeAccept(),
            pausedAfterBind(),
            silent(),
            silentTls(),
            ending("reset",
                   "The connection is reset: on connect, and before, during and after each answer.",
                   End::reset),
            ending("half-closed",
                   "The server closes its side (FIN) at the same moments and continues to receive.",
                   End::halfClosed),
            ending("closed", "The server closes the connection at the same moments.", End::closed)};
}

} // namespace SolvaneTest
