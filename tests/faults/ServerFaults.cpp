// Faults of one server of several, of a name, and of a slow link: what the engine copes with.
#include "Expectations.h"
#include "Sites.h"

#include "LdapMessages.h"
#include "NameServer.h"
#include "ScriptedServer.h"

#include <memory>
#include <utility>

namespace SolvaneTest {

namespace {

using Peer = FaultyServer::Peer;

using Milliseconds = std::chrono::milliseconds;

constexpr char name[] = "ldap.corp.test";
constexpr char healthyAddress[] = "127.0.0.1";
constexpr char otherAddress[] = "127.0.0.2";
constexpr Milliseconds generous{10000};

/// Why the columns that stand on one connection have no case.
std::function<std::string(Column)> onlyForTheEngine(char const* why)
{
    return [why](Column column) {
        if (column == Column::verify) {
            return std::string("uses the engine's pool");
        }
        bool const isThere = isLookup(column) || column == Column::tool;
        return isThere ? std::string() : std::string(why);
    };
}

// Broken behind the bind

/// A server in front of another one that is whole.
class FirstOfTwoSite : public ServerSite {
public:
    FirstOfTwoSite(FaultyServer::Script const& script, unsigned int healthyPort)
        : ServerSite(script, 1), m_healthyPort(healthyPort)
    {
    }
    Target target() override
    {
        Target where = ServerSite::target();
        where.otherPorts = {m_healthyPort};
        where.deadline = generous;
        return where;
    }
    Target mended() override
    {
        m_server.mend();
        return target();
    }

private:
    unsigned int m_healthyPort;
};

/// Answers every search with this code and without an entry.
FaultyServer::Script answeringSearches(long code)
{
    return serveWith(Step::search, [code](std::string const& request) {
        return finalResponse(Step::search, messageIdOf(request), code);
    });
}

Fault behindTheBind()
{
    return {"behind-the-bind",
            "Of two servers, the first accepts every bind and fails every search.",
            onlyForTheEngine("has one server"), [](Column column, Extent const& extent) {
                struct Spoiling {
                    char const* how;
                    FaultyServer::Script script;
                };
                auto const after = [](std::function<void(Peer&)> const& end) {
                    return serveUntil(Step::search,
                                      [end](Peer& peer, auto const&, auto const&) { end(peer); });
                };
                constexpr long busy = 51;
                constexpr long unwilling = 53;
                constexpr long noSuchObject = 32;
                std::vector<Case> cases;
                for (Spoiling const& each :
                     {Spoiling{"closed", after([](Peer&) {})},
                      Spoiling{"reset", after([](Peer& peer) { peer.reset(); })},
                      Spoiling{"silent", after([](Peer& peer) { peer.stayMute(); })},
                      Spoiling{"garbage", after([](Peer& peer) {
                                   peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
                               })},
                      Spoiling{"busy", answeringSearches(busy)},
                      Spoiling{"unwilling to perform", answeringSearches(unwilling)},
                      Spoiling{"no such object", answeringSearches(noSuchObject)}}) {
                    Case tried;
                    tried.name = each.how;
                    tried.site = [script = each.script, port = extent.healthyPort] {
                        return std::make_unique<FirstOfTwoSite>(script, port);
                    };
                    tried.accepted = success(column);
                    cases.push_back(tried);
                }
                return cases;
            }};
}

// Names

/// A whole server under a name, which a name server of the test knows.
class NamedSite : public ServerSite {
public:
    explicit NamedSite(std::vector<std::string> const& addresses) : ServerSite(serveWell, 1)
    {
        m_names.add(name, addresses);
    }
    Target target() override
    {
        Target where = ServerSite::target();
        where.host = name;
        where.nameServers = {m_names.address()};
        where.deadline = generous;
        return where;
    }
    Target mended() override { return target(); }

protected:
    NameServer m_names;
};

/// The same beside a second address, which nobody listens at or which takes no more connections.
class TwoAddressesSite : public NamedSite {
public:
    TwoAddressesSite(std::vector<std::string> const& addresses, bool hangs) : NamedSite(addresses)
    {
        if (hangs) {
            m_hanging = std::make_unique<HangingPort>(otherAddress, m_server.port());
        }
    }

private:
    std::unique_ptr<HangingPort> m_hanging;
};

Fault addresses()
{
    return {"addresses", "One of a name's addresses is dead: it refuses connections, or hangs.",
            onlyForTheEngine("OpenLDAP resolves names and tries their addresses itself"),
            [](Column column, Extent const&) {
                struct Order {
                    char const* how;
                    std::vector<std::string> addresses;
                    bool hangs;
                };
                std::vector<Case> cases;
                for (Order const& each :
                     {Order{"the first refuses", {otherAddress, healthyAddress}, false},
                      Order{"the second refuses", {healthyAddress, otherAddress}, false},
                      Order{"the first hangs", {otherAddress, healthyAddress}, true},
                      Order{"the second hangs", {healthyAddress, otherAddress}, true},
                      Order{"the one of IPv6 refuses", {"::1", healthyAddress}, false}}) {
                    Case tried;
                    tried.name = each.how;
                    tried.site = [each] {
                        return std::make_unique<TwoAddressesSite>(each.addresses, each.hangs);
                    };
                    tried.accepted = success(column);
                    cases.push_back(tried);
                }
                return cases;
            }};
}

/// What is wrong with the name service until it is mended.
enum class NameTrouble { silent, failing, unknown };

class DeadNamesSite : public NamedSite {
public:
    /// @param otherPorts  of servers besides, which have addresses
    DeadNamesSite(NameTrouble trouble, std::vector<unsigned int> otherPorts)
        : NamedSite(trouble == NameTrouble::unknown ? std::vector<std::string>{}
                                                    : std::vector<std::string>{healthyAddress}),
          m_trouble(trouble), m_otherPorts(std::move(otherPorts))
    {
        constexpr unsigned int serverFailure = 2;
        if (trouble == NameTrouble::silent) {
            m_names.fallSilent();
        } else if (trouble == NameTrouble::failing) {
            m_names.fail(serverFailure);
        }
    }
    Target target() override
    {
        Target where = NamedSite::target();
        where.otherPorts = m_otherPorts;
        return where;
    }
    Target mended() override
    {
        if (m_trouble == NameTrouble::unknown) {
            m_names.add(name, {healthyAddress});
        }
        m_names.recover();
        return target();
    }

private:
    NameTrouble m_trouble;
    std::vector<unsigned int> m_otherPorts;
};

Fault deadNames()
{
    return {"dead-names", "The name service is silent, fails, or does not know the server's name.",
            onlyForTheEngine("OpenLDAP resolves names itself"),
            [](Column column, Extent const& extent) {
                Accepted const late = connectTrouble(column, Trouble::silent);
                Accepted const failed = connectTrouble(column, Trouble::broken);
                struct Dead {
                    char const* how;
                    NameTrouble trouble;
                    std::vector<unsigned int> otherPorts;
                    Accepted accepted;
                };
                std::vector<unsigned int> const other = {extent.healthyPort};
                std::vector<Case> cases;
                for (Dead const& each : {Dead{"silent", NameTrouble::silent, {}, late},
                                         Dead{"fails", NameTrouble::failing, {}, failed},
                                         Dead{"unknown", NameTrouble::unknown, {}, failed},
                                         Dead{"silent, with another server", NameTrouble::silent,
                                              other, success(column)},
                                         Dead{"fails, with another server", NameTrouble::failing,
                                              other, success(column)}}) {
                    Case tried;
                    tried.name = each.how;
                    tried.site = [each] {
                        return std::make_unique<DeadNamesSite>(each.trouble, each.otherPorts);
                    };
                    tried.accepted = each.accepted;
                    cases.push_back(tried);
                }
                return cases;
            }};
}

// Slow links

class SlowSite : public ServerSite {
public:
    SlowSite(FaultyServer::Script const& script, unsigned int patience, Milliseconds deadline)
        : ServerSite(script, patience), m_deadline(deadline)
    {
    }
    Target target() override
    {
        Target where = ServerSite::target();
        where.deadline = m_deadline;
        return where;
    }
    Target mended() override
    {
        m_server.mend();
        return target();
    }

private:
    Milliseconds m_deadline;
};

/// Answers searches in so many pieces, with so long a pause behind each.
FaultyServer::Script trickling(std::size_t pieces, Milliseconds pause)
{
    return [=](Peer& peer) {
        for (;;) {
            std::string const request = peer.receive();
            if (request.empty()) {
                return;
            }
            std::string const answer = joined(repliesTo(request));
            std::size_t const size = answer.size() / pieces + 1;
            for (std::size_t sent = 0; sent < answer.size();) {
                bool const isSlow = stepOf(request) == Step::search && !peer.isMended();
                std::string const piece = answer.substr(sent, isSlow ? size : answer.size());
                if (!peer.send(piece) || (isSlow && !peer.pause(pause))) {
                    return;
                }
                sent += piece.size();
            }
        }
    };
}

Fault slowLink()
{
    static constexpr Milliseconds pause{300};
    return {
        "slow-link",
        "An answer takes longer than the network timeout, or than the deadline, but never stops.",
        onlyForTheEngine("the timeout applies to each message as a whole"),
        [](Column column, Extent const&) {
            Case slow;
            slow.name = "slower than the network timeout";
            slow.site = [] {
                return std::make_unique<SlowSite>(trickling(10, pause), 2, generous);
            };
            slow.accepted = success(column);
            Case late;
            late.name = "slower than the deadline";
            late.site = [] {
                return std::make_unique<SlowSite>(trickling(1000, pause), 10, Milliseconds(1000));
            };
            late.accepted = troubleIn(Step::search, column, Trouble::silent);
            return std::vector<Case>{slow, late};
        }};
}

} // namespace

std::vector<Fault> serverFaults()
{
    return {behindTheBind(), addresses(), deadNames(), slowLink()};
}

} // namespace SolvaneTest
