// Scripted directories, runs over lists of keys, and loops with poll.
#include "Lookups.h"

#include <algorithm>
#include <cstdio>

#include <poll.h>

using namespace Solvane;

namespace Solvane::Lookup {

void PrintTo(Outcome outcome, std::ostream* out)
{
    constexpr char const* names[] = {"Found",    "NotFound", "Skipped",      "BadKey",
                                     "TryLater", "Refused",  "Misconfigured"};
    *out << names[static_cast<int>(outcome)];
}

} // namespace Solvane::Lookup

namespace SolvaneTest {

namespace {

std::string extendedResponse(int messageId, int code, std::string const& value)
{
    constexpr unsigned char extendedResponseTag = 0x78;
    constexpr unsigned char responseValueTag = 0x8b;
    std::string const result = berElement(0x0a, std::string(1, static_cast<char>(code))) +
                               berElement(0x04, "") + berElement(0x04, "");
    return ldapMessage(
        messageId, berElement(extendedResponseTag,
                              code == 0 ? result + berElement(responseValueTag, value) : result));
}

ScriptedServer::Script servingWith(OnSearch const& onSearch, int code, std::string const& identity)
{
    return [=](ScriptedServer::Peer& peer) {
        for (;;) {
            std::string const request = peer.receiveMessage();
            if (request.empty()) {
                return;
            }
            int const id = messageIdOf(request);
            switch (operationOf(request)) {
            case BindRequest:
                peer.send(bindResponse(id));
                break;
            case ExtendedRequest:
                peer.send(extendedResponse(id, code, identity));
                break;
            case SearchRequest:
                onSearch(peer, request);
                break;
            default:
                break;
            }
        }
    };
}

} // namespace

LDAPLookup::Settings settingsFor(std::vector<unsigned int> const& ports)
{
    LDAPLookup::Settings settings;
    for (unsigned int const port : ports) {
        LDAPLookup::Server server;
        server.host = "127.0.0.1";
        server.port = port;
        settings.servers.push_back(server);
    }
    settings.bindDn = readerDn;
    settings.password = readerPassword;
    settings.base = people;
    settings.queryTemplate = "(mail=$m)";
    return settings;
}

void PrintTo(WayIn way, std::ostream* out)
{
    constexpr char const* names[] = {"plain", "ldaps", "StartTLS", "ldapi"};
    *out << names[static_cast<int>(way)];
}

LDAPLookup::Settings settingsFor(Slapd const& slapd, WayIn way)
{
    auto settings = settingsFor({way == WayIn::ldaps ? slapd.tlsPort() : slapd.port()});
    settings.servers.front().secure = way == WayIn::ldaps;
    settings.servers.front().startTls = way == WayIn::startTls;
    if (way == WayIn::ldapi) {
        settings.servers.front().host.clear();
        settings.servers.front().socketPath = slapd.socketPath();
    }
    settings.tls.caFile = slapd.caFile();
    return settings;
}

std::string uriOf(unsigned int port) { return "ldap://127.0.0.1:" + std::to_string(port); }
std::string uriOf(ScriptedServer const& server) { return uriOf(server.port()); }

std::string addressOf(int user)
{
    char text[40];
    std::snprintf(text, sizeof text, "user%07d@corp.test", user);
    return text;
}

ScriptedServer::Script serving(OnSearch onSearch, std::string const& identity)
{
    return servingWith(onSearch, 0, identity);
}

ScriptedServer::Script servingWithoutWhoAmI(OnSearch onSearch, int code)
{
    return servingWith(onSearch, code, std::string());
}

std::string whoAmIResponse(int messageId, std::string const& identity)
{
    return extendedResponse(messageId, 0, identity);
}

ScriptedServer::Script loginServer(OnBind onBind, OnSearch onSearch)
{
    return
        [onBind = std::move(onBind), onSearch = std::move(onSearch)](ScriptedServer::Peer& peer) {
            std::string identity;
            for (std::string request = peer.receiveMessage(); !request.empty();
                 request = peer.receiveMessage()) {
                int const id = messageIdOf(request);
                if (operationOf(request) == SearchRequest) {
                    onSearch(peer, request);
                } else if (operationOf(request) == ExtendedRequest) {
                    peer.send(whoAmIResponse(id, identity));
                } else if (operationOf(request) == BindRequest) {
                    std::string const dn = bindContentOf(request).dn;
                    identity = "dn:" + dn;
                    if (dn == readerDn) {
                        peer.send(bindResponse(id));
                    } else {
                        onBind(peer, request);
                    }
                }
            }
        };
}

void answerFound(ScriptedServer::Peer& peer, std::string const& request)
{
    int const id = messageIdOf(request);
    peer.send(searchEntry(id, "cn=somebody", {{"cn", {"Somebody"}}}) + searchDone(id));
}

void answerEmpty(ScriptedServer::Peer& peer, std::string const& request)
{
    peer.send(searchDone(messageIdOf(request)));
}

void answerElsewhere(ScriptedServer::Peer& peer, std::string const& request)
{
    constexpr unsigned char searchReference = 0x73;
    std::string const elsewhere = berElement(
        searchReference, berElement(0x04, "ldap://other.test/ou=people,dc=corp,dc=test"));
    int const id = messageIdOf(request);
    peer.send(ldapMessage(id, elsewhere) + searchDone(id));
}

std::size_t countOf(unsigned char operation, std::vector<std::string> const& messages)
{
    return static_cast<std::size_t>(
        std::count_if(messages.begin(), messages.end(), [operation](std::string const& message) {
            return operationOf(message) == operation;
        }));
}

LDAPLookup::Source sourceOf(std::vector<std::string> keys)
{
    std::reverse(keys.begin(), keys.end());
    return [keys = std::move(keys)](std::string& key, bool) mutable {
        if (keys.empty()) {
            return LDAPLookup::Supply::end;
        }
        key = keys.back();
        keys.pop_back();
        return LDAPLookup::Supply::key;
    };
}

std::vector<Answered> answersTo(LDAPLookup& lookup, std::vector<std::string> const& keys)
{
    std::vector<Answered> answers;
    lookup.findAll(sourceOf(keys), [&](std::string const& key, LDAPLookup::Answer&& answer) {
        answers.push_back({key, std::move(answer)});
        return true;
    });
    return answers;
}

bool awaitReadable(int descriptor, std::chrono::milliseconds time)
{
    pollfd polled{descriptor, POLLIN, 0};
    return poll(&polled, 1, static_cast<int>(time.count())) == 1;
}

bool QueueLoop::runUntil(std::size_t answers)
{
    while (m_count < answers) {
        if (!awaitReadable(m_queue.descriptor())) {
            return false;
        }
        ++m_wakeUps;
        take();
    }
    return true;
}

void QueueLoop::runFor(std::chrono::milliseconds time)
{
    auto const end = std::chrono::steady_clock::now() + time;
    for (;;) {
        auto const left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !awaitReadable(m_queue.descriptor(), left)) {
            return;
        }
        ++m_wakeUps;
        take();
    }
}

void QueueLoop::take()
{
    while (auto result = m_queue.next()) {
        ++m_count;
        if (result->verification) {
            m_verifications[result->tag] = *result->verification;
        } else {
            m_answers[result->tag] = {result->key, std::move(result->answer)};
        }
    }
}

} // namespace SolvaneTest
