// StartTLS that is refused, stripped or abused, and client certificates that a server does not accept.
#include "Expectations.h"
#include "Sites.h"

#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "ServerTls.h"

namespace SolvaneTest {

namespace {

using Peer = FaultyServer::Peer;

/// Only the engine's servers have these settings.
std::string engineAlone(Column column)
{
    switch (column) {
    case Column::engine:
        return std::string();
    case Column::verify:
    case Column::tool:
        return "uses the engine's code";
    default:
        return "the settings of its servers do not have this";
    }
}

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
            engineAlone, [](Column, Extent const& extent) {
                auto const made = [&](char const* name, FaultyServer::Script const& script,
                                      char const* accepted) {
                    Case tried;
                    tried.name = name;
                    tried.site = [script, port = extent.healthyPort] {
                        return std::make_unique<StartTlsSite>(script, port);
                    };
                    tried.accepted = {accepted};
                    return tried;
                };
                auto const granted = [](std::string const& behind) {
                    return answering([behind](int id) { return startTlsResponse(id) + behind; });
                };
                return std::vector<Case>{
                    made("refused", refusingWith(2), "Refused 2"),
                    made("unavailable", refusingWith(52), "Refused 52"),
                    made("unwilling", refusingWith(53), "Refused 53"),
                    made("busy", refusingWith(51), "TryLater 51"),
                    made(
                        "request dropped", [](Peer& peer) { peer.stayMute(); }, "TryLater -5"),
                    made(
                        "granted, answered in plain text",
                        [](Peer& peer) {
                            peer.send(startTlsResponse(messageIdOf(peer.receive())));
                            peer.awaitBytes();
                            peer.send(bindResponse(2));
                            peer.stayMute();
                        },
                        "TryLater -1"),
                    made(
                        "granted, silent",
                        [](Peer& peer) {
                            peer.send(startTlsResponse(messageIdOf(peer.receive())));
                            peer.stayMute();
                        },
                        "TryLater -5"),
                    made("bind injected", granted(bindResponse(2)), "Refused -11"),
                    made("half a message injected", granted("0"), "Refused -11"),
                    made("answer of a bind", answering([](int id) { return bindResponse(id); }),
                         "TryLater -4"),
                    made(
                        "closed", [](Peer& peer) { peer.receive(); }, "TryLater -1"),
                    made(
                        "reset",
                        [](Peer& peer) {
                            peer.receive();
                            peer.reset();
                        },
                        "TryLater -1"),
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
            engineAlone, [](Column, Extent const& extent) {
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
                        tried.accepted = {"Refused -11"};
                        cases.push_back(tried);
                    }
                }
                return cases;
            }};
}

} // namespace

std::vector<Fault> tlsFaults() { return {startTls(), clientCertificate()}; }

} // namespace SolvaneTest
