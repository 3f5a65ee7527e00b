// Options of sessions, and reading the messages of an answer.
#include "Sessions.h"

#include "Console.h"
#include "Files.h"
#include "OpenLDAP.h"
#include "Outcome.h"
#include "Text.h"

#include <solvane/session/EntryReader.h>
#include <solvane/session/ResultCodes.h>
#include <solvane/session/SrvQuery.h>

#include <fmt/format.h>

#include <algorithm>

#include <poll.h>

namespace Solvane::Tool {

using Lookup::Clock;
using Lookup::Session;
using Lookup::Verdict;
using std::chrono::milliseconds;

namespace {

void append(LDAPValueBuffer const& texts, std::vector<std::string>& to)
{
    for (char** text = texts.get(); text != nullptr && *text != nullptr; ++text) {
        to.emplace_back(*text);
    }
}

std::string lineOf(LDAPCharBuffer const& text)
{
    return text.get() == nullptr ? std::string() : oneLine(text.get());
}

constexpr char damaged[] = "the server sent an invalid response";

/// The verdict for a response that did not come: the connection broke, or the time ran out.
Verdict verdictWithout(Session::Received received, Session const& session)
{
    return received == Session::Received::broken
               ? session.verdict()
               : Verdict{Lookup::Outcome::TryLater, LDAP_TIMEOUT, "no answer in time"};
}

bool takeReference(Session const& session, LDAPMessageBuffer const& message, SearchEnd& end)
{
    LDAPValueBuffer uris;
    int const rc =
        ldap_parse_reference(session.handle(), message.get(), uris.address(), nullptr, 0);
    append(uris, end.references);
    return rc == LDAP_SUCCESS;
}

Verdict verdictOf(ResultMessage const& result, std::vector<std::string>& references)
{
    references.insert(references.end(), result.referrals.begin(), result.referrals.end());
    if (result.code == LDAP_SUCCESS) {
        return {};
    }
    return {Lookup::outcomeOfSearch(result.code), result.code,
            Lookup::wordsFor(result.code, result.text) + pointersTo(result.referrals)};
}

/// Reads one message of the answer. Returns true at the end of the answer.
bool takeMessage(Session const& session, LDAPMessageBuffer const& message, SearchEnd& end)
{
    bool isWhole = true;
    switch (ldap_msgtype(message.get())) {
    case LDAP_RES_SEARCH_ENTRY:
        isWhole = Lookup::readEntry(session.handle(), message.get(), end.entries);
        break;
    case LDAP_RES_SEARCH_REFERENCE:
        isWhole = takeReference(session, message, end);
        break;
    case LDAP_RES_SEARCH_RESULT:
        end.verdict = verdictOf(resultIn(session, message), end.references);
        return true;
    default: // other messages are allowed, and ignored
        break;
    }
    if (!isWhole) {
        end.verdict = {Lookup::Outcome::TryLater, LDAP_DECODING_ERROR, damaged};
    }
    return !isWhole;
}

} // namespace

ServersFound serversOf(LDAPLookup::Server const& server, LDAPLookup::Settings const& settings,
                       Clock::time_point deadline)
{
    if (server.srvDomain.empty()) {
        return {Verdict(), {server}};
    }
    auto const limit =
        std::min(deadline, Clock::now() + std::chrono::seconds(settings.networkTimeout));
    Lookup::SrvQuery query(server.srvDomain, server.secure, settings.nameServers);
    for (query.advance(); !query.isSettled(); query.advance()) {
        if (Clock::now() >= limit) {
            return {
                Verdict{Lookup::Outcome::TryLater, LDAP_TIMEOUT,
                        fmt::format("no name server answered for '{}' in time", server.srvDomain)},
                {}};
        }
        Lookup::Waits waits;
        query.waits(waits);
        waits.until(limit);
        waits.wait();
    }
    ServersFound found = {query.verdict(), {}};
    for (Lookup::SrvTarget const& target : query.targets()) {
        LDAPLookup::Server one = server;
        one.srvDomain.clear();
        one.host = target.host;
        one.port = target.port;
        found.servers.push_back(one);
    }
    return found;
}

std::string identityIn(LDAPLookup::Settings const& settings)
{
    if (settings.mechanism == Lookup::Mechanism::simple) {
        return settings.bindDn.empty() ? "anonymous" : "as " + settings.bindDn;
    }
    char const* const name =
        settings.mechanism == Lookup::Mechanism::external ? "EXTERNAL" : "GSSAPI";
    return settings.authorizationId.empty()
               ? fmt::format("with {}", name)
               : fmt::format("with {}, as {}", name, settings.authorizationId);
}

Lookup::SessionOptions sessionOptions(LDAPLookup::Settings const& settings,
                                      LDAPLookup::Server const& server,
                                      std::shared_ptr<Lookup::TlsContext> tls)
{
    Lookup::SessionOptions options;
    options.host = server.host;
    options.port = server.port;
    options.secure = server.secure;
    options.startTls = server.startTls;
    options.socketPath = server.socketPath;
    options.version = static_cast<unsigned int>(server.version);
    options.nameServers = settings.nameServers;
    options.networkTimeout = std::chrono::seconds(settings.networkTimeout);
    options.tls = std::move(tls);
    options.mechanism = settings.mechanism;
    options.authorizationId = settings.authorizationId;
    options.bindDn = settings.bindDn;
    options.password = &settings.password;
    options.messageBytes = settings.entryBytes;
    return options;
}

std::unique_ptr<Session> openFirst(LDAPLookup::Settings const& settings,
                                   std::shared_ptr<Lookup::TlsContext> const& tls,
                                   Lookup::Step last, Diagnostics const& diagnostics)
{
    Session::initializeOpenLdap();
    auto const deadline = Clock::now() + settings.deadline;
    Verdict verdict;
    for (LDAPLookup::Server const& listed : settings.servers) {
        ServersFound const found = serversOf(listed, settings, deadline);
        verdict = found.verdict;
        if (!verdict.isGood()) {
            diagnostics.note(verdict.text);
        }
        for (LDAPLookup::Server const& server : found.servers) {
            auto session = std::make_unique<Session>(sessionOptions(settings, server, tls));
            verdict = session->reach(last, deadline);
            if (verdict.isGood()) {
                return session;
            }
            if (verdict.outcome != Lookup::Outcome::TryLater) {
                throw Failure(outcomeOf(verdict), verdict.text, remedyFor(verdict), verdict.code);
            }
            diagnostics.note(verdict.text);
        }
    }
    throw Failure(outcomeOf(verdict), verdict.text, remedyFor(verdict), verdict.code);
}

Session::Received awaitMessage(Session& session, Patience const& patience,
                               LDAPMessageBuffer& message, int& id, int input)
{
    for (;;) {
        auto const received = session.receive(message, id);
        if (received != Session::Received::nothing || (input != -1 && hasInput(input, 0))) {
            return received;
        }
        // Bytes of an incomplete message count: a slow link is not silence.
        auto const limit = std::min(std::max(patience.since, session.heardAt()) + patience.silence,
                                    patience.deadline);
        if (Clock::now() >= limit) {
            return received;
        }
        Lookup::Waits waits;
        session.waits(waits);
        waits.add(input, POLLIN);
        waits.until(limit);
        waits.wait();
    }
}

ResultMessage resultIn(Session const& session, LDAPMessageBuffer const& message)
{
    LDAPCharBuffer matched;
    LDAPCharBuffer text;
    LDAPValueBuffer referrals;
    ResultMessage result;
    int const rc =
        ldap_parse_result(session.handle(), message.get(), &result.code, matched.address(),
                          text.address(), referrals.address(), nullptr, 0);
    if (rc != LDAP_SUCCESS) {
        result.code = LDAP_DECODING_ERROR;
        return result;
    }
    result.text = lineOf(text);
    result.matched = lineOf(matched);
    append(referrals, result.referrals);
    return result;
}

std::string pointersTo(std::vector<std::string> const& uris)
{
    std::string text;
    for (std::string const& uri : uris) {
        text += ", see " + oneLine(uri);
    }
    return text;
}

Verdict request(Session& session, Send const& send, int type, LDAPLookup::Settings const& settings,
                LDAPMessageBuffer& message, ResultMessage& result)
{
    int wanted = 0;
    if (int const code = send(session.handle(), wanted); code != LDAP_SUCCESS) {
        return {Lookup::Outcome::TryLater, code,
                std::string("cannot send the request: ") + Lookup::wordsFor(code)};
    }
    session.expect(wanted);
    session.flush();
    auto const now = Clock::now();
    Patience const patience = {now, std::chrono::seconds(settings.networkTimeout),
                               now + settings.deadline};
    for (;;) {
        message.free();
        int id = 0;
        auto const received = awaitMessage(session, patience, message, id);
        if (received != Session::Received::message) {
            return verdictWithout(received, session);
        }
        int const got = ldap_msgtype(message.get());
        if (id != wanted || got == LDAP_RES_INTERMEDIATE) {
            continue;
        }
        result = resultIn(session, message);
        return got == type && result.code != LDAP_DECODING_ERROR
                   ? Verdict()
                   : Verdict{Lookup::Outcome::TryLater, LDAP_DECODING_ERROR, damaged};
    }
}

SearchEnd searchOn(Session& session, Lookup::SearchRequest const& request,
                   std::string const& filter, milliseconds silence, Clock::time_point deadline)
{
    SearchEnd end;
    int wanted = 0;
    end.verdict = session.send(request, filter, wanted);
    Patience const patience = {Clock::now(), silence, deadline};
    for (bool hasEnded = !end.verdict.isGood(); !hasEnded;) {
        LDAPMessageBuffer message;
        int id = 0;
        auto const received = awaitMessage(session, patience, message, id);
        if (received == Session::Received::message) {
            hasEnded = id == wanted && takeMessage(session, message, end);
        } else {
            hasEnded = true;
            end.verdict = verdictWithout(received, session);
        }
    }
    return end;
}

} // namespace Solvane::Tool
