// What protects a connection, and fails: StartTLS that is refused, stripped or abused, client
// certificates that a server does not accept, and Kerberos.
#include "Expectations.h"
#include "Sites.h"

#include "Eventually.h"
#include "Kdc.h"
#include "LdapMessages.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Slapd.h"

#include <array>
#include <map>

#include <unistd.h>

namespace SolvaneTest {

namespace {

using Peer = FaultyServer::Peer;

/// For what can be set on a connection, and in the engine's settings.
std::string notForOthers(Column column)
{
    switch (column) {
    case Column::search:
    case Column::add:
    case Column::modify:
    case Column::remove:
    case Column::compare:
    case Column::stream:
        return "see bind";
    case Column::pool:
    case Column::query:
        return "only binds with a DN and a password";
    default:
        return std::string();
    }
}

/// For what only the engine has settings for.
std::string forTheEngine(Column column)
{
    return usesEngine(column) || column == Column::tool
               ? std::string()
               : std::string("the settings of its servers do not have this");
}

/// What comes of a failure: of the object interface, of the engine, and of the tool.
struct Reported {
    char const* place;
    char const* answer;
    char const* exit;

    Accepted as(Column column) const
    {
        return {column == Column::bind ? place : column == Column::tool ? exit : answer};
    }
};

// StartTLS

/// A server that is asked for TLS on a plain connection, which it never uses.
class StartTlsSite : public ServerSite {
public:
    StartTlsSite(FaultyServer::Script script, unsigned int healthyPort)
        : ServerSite(std::move(script), 1), m_healthyPort(healthyPort)
    {
    }
    Target target() override
    {
        Target where = ServerSite::target();
        where.startsTls = true;
        return where;
    }
    Target mended() override
    {
        Target where;
        where.port = m_healthyPort;
        return where;
    }
    std::string violation() override
    {
        return m_server.wasBound() ? "sent a password without TLS" : ServerSite::violation();
    }

private:
    unsigned int m_healthyPort;
};

/// Answers the request with these bytes, and then serves as without TLS.
FaultyServer::Script answering(std::function<std::string(int id)> const& answer)
{
    return [answer](Peer& peer) {
        std::string const request = peer.receive();
        if (!request.empty()) {
            peer.send(answer(messageIdOf(request)));
            serveWell(peer);
        }
    };
}

FaultyServer::Script refusingWith(int code)
{
    return answering([code](int id) { return startTlsResponse(id, code); });
}

Fault startTls()
{
    return {"starttls",
            "The server refuses StartTLS, or an attacker strips it or injects answers before TLS.",
            notForOthers, [](Column column, Extent const& extent) {
                auto const made = [&](char const* name, FaultyServer::Script const& script,
                                      Reported const& reported) {
                    Case tried;
                    tried.name = name;
                    tried.site = [script, port = extent.healthyPort] {
                        return std::make_unique<StartTlsSite>(script, port);
                    };
                    tried.accepted = reported.as(column);
                    return tried;
                };
                char const* const refused = "Security.cpp:76 (4/3)";
                char const* const unreachable = "Security.cpp:76 (4/1)";
                Reported const broken = {unreachable, "TryLater -1", "exit 75"};
                Reported const late = {unreachable, "TryLater -5", "exit 75"};
                Reported const abused = {unreachable, "Refused -11", "exit 77"};
                auto const granted = [](std::string const& behind) {
                    return answering([behind](int id) { return startTlsResponse(id) + behind; });
                };
                return std::vector<Case>{
                    made("refused", refusingWith(2), {refused, "Refused 2", "exit 69"}),
                    made("unavailable", refusingWith(52), {refused, "Refused 52", "exit 69"}),
                    made("unwilling", refusingWith(53), {refused, "Refused 53", "exit 69"}),
                    made("busy", refusingWith(51), {refused, "TryLater 51", "exit 75"}),
                    made(
                        "request dropped", [](Peer& peer) { peer.stayMute(); }, late),
                    made(
                        "granted, answered in plain text",
                        [](Peer& peer) {
                            peer.send(startTlsResponse(messageIdOf(peer.receive())));
                            peer.awaitBytes();
                            peer.send(bindResponse(2));
                            peer.stayMute();
                        },
                        broken),
                    made(
                        "granted, silent",
                        [](Peer& peer) {
                            peer.send(startTlsResponse(messageIdOf(peer.receive())));
                            peer.stayMute();
                        },
                        late),
                    made("bind injected", granted(bindResponse(2)), abused),
                    made("half a message injected", granted("0"), abused),
                    made("answer of a bind", answering([](int id) { return bindResponse(id); }),
                         {refused, "TryLater -4", "exit 75"}),
                    made(
                        "closed", [](Peer& peer) { peer.receive(); }, broken),
                    made(
                        "reset",
                        [](Peer& peer) {
                            peer.receive();
                            peer.reset();
                        },
                        broken),
                };
            }};
}

// Client certificates

enum class Shown { none, expired, foreign };

/// A server with TLS that demands a certificate of its authority.
class DemandingSite : public Site {
public:
    DemandingSite(Shown shown, char const* priority, unsigned int healthyPort)
        : m_tls(m_authority.issue(), priority, m_authority.file()), m_healthyPort(healthyPort)
    {
        CertificateWish wish;
        wish.isForClients = true;
        if (shown == Shown::expired) {
            wish.notBefore = 1577836800; // 2020
            wish.notAfter = 1609459200;
        }
        if (shown != Shown::none) {
            m_shown = (shown == Shown::foreign ? m_foreign : m_authority).issue(wish);
        }
    }
    Target target() override
    {
        Target where;
        where.port = m_server.port();
        where.isSecure = true;
        where.patience = 1;
        where.certificateFile = m_shown.certificateFile;
        where.keyFile = m_shown.keyFile;
        return where;
    }
    Target mended() override
    {
        Target where;
        where.port = m_healthyPort;
        return where;
    }
    std::string violation() override
    {
        return m_server.receivedCount() == 0 ? std::string() : "was let in";
    }

private:
    Authority m_authority;
    Authority m_foreign{"Another authority"};
    TlsIdentity m_shown;
    ServerTls m_tls;
    unsigned int m_healthyPort;
    ScriptedServer m_server{[this](ScriptedServer::Peer& peer) {
        if (peer.startTls(m_tls)) {
            peer.receiveUntilClosed();
        }
    }};
};

Fault clientCertificate()
{
    return {"client-certificate",
            "The server demands a client certificate; there is none, it expired, or another "
            "authority signed it.",
            forTheEngine, [](Column column, Extent const& extent) {
                constexpr Reported refused = {nullptr, "Refused -11", "exit 77"};
                struct {
                    char const* name;
                    Shown shown;
                } const kinds[] = {{"missing", Shown::none},
                                   {"expired", Shown::expired},
                                   {"of another authority", Shown::foreign}};
                std::vector<Case> cases;
                for (char const* const version : {"TLS1.2", "TLS1.3"}) {
                    for (auto const& kind : kinds) {
                        Case tried;
                        tried.name = std::string(kind.name) + ", " + version;
                        tried.site = [shown = kind.shown, version, port = extent.healthyPort] {
                            std::string const priority =
                                std::string("NORMAL:-VERS-ALL:+VERS-") + version;
                            return std::make_unique<DemandingSite>(shown, priority.c_str(), port);
                        };
                        tried.accepted = refused.as(column);
                        cases.push_back(tried);
                    }
                }
                return cases;
            }};
}

// Kerberos

/// A realm, and a directory that is a service of it, for the whole program.
class Realm {
public:
    /// @param host  of the directory's principal
    explicit Realm(std::string const& host)
    {
        if (host != "localhost") {
            std::string const service = "ldap/" + host;
            kdc.administer({"addprinc", "-randkey", service});
            kdc.administer({"ktadd", "-k", kdc.file("service.keytab"), service});
        }
        slapd = std::make_unique<Slapd>(std::vector<std::string>{
            "--users", "2", "--kerberos", kdc.folder(), "--sasl-host", host});
    }

    Kdc kdc;
    std::unique_ptr<Slapd> slapd;
};

/// OpenLDAP asks for a ticket of this machine when it is connected to a loopback address; the engine
/// does not change the name.
std::string principalFor(Column column)
{
    if (column != Column::bind) {
        return "localhost";
    }
    std::array<char, 256> name{};
    gethostname(name.data(), name.size() - 1);
    return name.data();
}

/// Call it first while there are no other threads.
Realm& realmFor(Column column)
{
    static std::map<std::string, Realm> realms;
    std::string const host = principalFor(column);
    return realms.try_emplace(host, host).first->second;
}

enum class Ticket { missing, expired, ahead, behind, unavailable };

/// A bind by a ticket that is of no use; the directory is healthy.
class KerberosSite : public Site {
public:
    KerberosSite(Ticket ticket, Column column) : m_ticket(ticket), m_realm(realmFor(column))
    {
        Kdc& kdc = m_realm.kdc;
        constexpr int anHour = 3600; // the skew that is tolerated is five minutes
        switch (ticket) {
        case Ticket::missing:
            Kdc::useCache(kdc.file("none"));
            break;
        case Ticket::expired:
            kdc.useTicket("reader", {"-l", "1s"});
            if (!eventually([] { return run({"klist", "-s"}).exitStatus != 0; })) {
                throw std::runtime_error("the ticket does not expire");
            }
            break;
        case Ticket::ahead:
            kdc.useTicket("reader");
            kdc.setClock(anHour);
            break;
        case Ticket::behind:
            kdc.useTicket("reader");
            kdc.setClock(-anHour);
            break;
        case Ticket::unavailable:
            kdc.useTicket("reader");
            useRefusingKdc();
            break;
        }
    }
    Target target() override
    {
        Target where;
        where.host = "localhost";
        where.port = m_realm.slapd->port();
        where.usesKerberos = true;
        return where;
    }
    Came meet(Action& operation) override
    {
        if (m_ticket == Ticket::expired) {
            ToleratedLeak const leak;
            return operation.run(target());
        }
        return operation.run(target());
    }
    Target mended() override
    {
        m_realm.kdc.useTicket("reader");
        return target();
    }

private:
    void useRefusingKdc()
    {
        std::string text = m_realm.kdc.configuration();
        std::string const before = "kdc = 127.0.0.1:";
        auto const position = text.find(before) + before.size();
        text.replace(position, text.find('\n', position) - position,
                     std::to_string(m_refusing.number()));
        m_realm.kdc.useConfiguration(text);
    }

    Ticket m_ticket;
    Realm& m_realm;
    RefusingPort m_refusing;
};

Fault kerberos()
{
    return {
        "kerberos",
        "The Kerberos ticket is missing or has expired, the clock is an hour off, or the KDC is "
        "down.",
        [](Column column) {
            std::string const why = notForOthers(column);
            bool const isInstalled = Slapd::isInstalled() && Kdc::isInstalled();
            return !why.empty() || isInstalled
                       ? why
                       : std::string("slapd, a KDC or the SASL mechanism is not installed");
        },
        [](Column column, Extent const&) {
            char const* const place = "Security.cpp:136 (4/3)";
            Reported const unusable = {place, "Misconfigured -9", "exit 78"};
            struct {
                char const* name;
                Ticket ticket;
                Reported reported;
            } const kinds[] = {{"no ticket", Ticket::missing, unusable},
                               {"expired ticket", Ticket::expired, unusable},
                               {"clock ahead", Ticket::ahead, unusable},
                               {"clock behind", Ticket::behind, unusable},
                               {"no KDC", Ticket::unavailable, {place, "TryLater -6", "exit 75"}}};
            realmFor(column);
            std::vector<Case> cases;
            for (auto const& kind : kinds) {
                Case tried;
                tried.name = kind.name;
                tried.site = [ticket = kind.ticket, column] {
                    return std::make_unique<KerberosSite>(ticket, column);
                };
                tried.accepted = kind.reported.as(column);
                tried.mayOpenLdapLeak = column == Column::tool && kind.ticket == Ticket::expired;
                cases.push_back(tried);
            }
            return cases;
        },
        "With an expired ticket, MIT Kerberos leaks the client's name: 152 bytes for each bind."};
}

} // namespace

std::vector<Fault> securityFaults() { return {startTls(), clientCertificate(), kerberos()}; }

} // namespace SolvaneTest
