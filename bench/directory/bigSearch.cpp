// One search that finds every entry, with all attributes.
#include "rows.h"

#include "RawSession.h"

#include <solvane/session/EntryReader.h>
#include <solvane/session/Session.h>

#include <memory>

namespace SolvaneBench {

using Solvane::LDAPConnection;
using Solvane::LDAPSearch;

namespace {

char const everybody[] = "(objectClass=inetOrgPerson)";

std::unique_ptr<LDAPSearch> sentBy(LDAPConnection& connection)
{
    LDAPSearch::Parameter parameter(people());
    parameter.filter = everybody;
    auto search = std::make_unique<LDAPSearch>(connection, parameter);
    search->send();
    return search;
}

/// A bound session of the engine.
std::unique_ptr<Solvane::Lookup::Session> engineSession(Options const& options)
{
    static std::string const password = reader().password;
    Solvane::Lookup::SessionOptions settings;
    settings.host = options.host;
    settings.port = options.port;
    settings.bindDn = reader().dn;
    settings.password = &password;
    auto session = std::make_unique<Solvane::Lookup::Session>(settings);
    auto const soon = Solvane::Lookup::Clock::now() + std::chrono::seconds(10);
    require(session->reach(Solvane::Lookup::Step::bind, soon).isGood(), "the engine's bind");
    return session;
}

/// All results of the engine's session, read as lookups read them.
std::list<Solvane::LDAPSearchResultEntry> foundBy(Solvane::Lookup::Session& session)
{
    using Solvane::Lookup::Session;
    Solvane::Lookup::SearchRequest request;
    request.base = people();
    int id = 0;
    require(session.send(request, everybody, id).isGood(), "the engine's search");
    std::list<Solvane::LDAPSearchResultEntry> entries;
    Session::Message message;
    Solvane::Lookup::Waits waits;
    for (;;) {
        Session::Received const received = session.receive(message);
        require(received != Session::Received::broken, "the engine's connection");
        if (received == Session::Received::nothing) {
            waits.clear();
            session.waits(waits);
            waits.wait();
        } else if (message.type != LDAP_RES_SEARCH_ENTRY) {
            return entries;
        } else {
            require(Solvane::Lookup::readEntry(message.content, entries), "entry");
        }
    }
}

/// The heap memory of a search that stores everything, and the bytes received.
void measureMemory(Options const& options, RawSession const& raw, LDAPConnection& connection)
{
    unsigned long const receivedBefore = raw_received_bytes(raw.get());
    unsigned long before = heapBytes();
    LDAPMessage* const chain =
        raw_take_chain(raw.get(), raw_send_search(raw.get(), people().c_str(), everybody, nullptr));
    Rounds::note("big search", "raw, kept", "heap", static_cast<double>(heapBytes() - before),
                 options.users);
    ldap_msgfree(chain);
    Rounds::note("big search", "wire", "bytes",
                 static_cast<double>(raw_received_bytes(raw.get()) - receivedBefore),
                 options.users);

    before = heapBytes();
    std::unique_ptr<LDAPSearch> const stored = sentBy(connection);
    await(*stored);
    Rounds::note("big search", "library", "heap", static_cast<double>(heapBytes() - before),
                 options.users);
}

} // namespace

void bigSearch(Options const& options, Rounds const& rounds)
{
    RawSession const raw(options.uri(), reader());
    RawSession const again(options.uri(), reader());
    LDAPConnection connection = openBound(serverAt(options.host, options.port), reader());
    std::unique_ptr<Solvane::Lookup::Session> const engine = engineSession(options);
    auto const keep = [&] {
        auto const entries = foundBy(*engine);
        require(entries.size() == options.users && readEntries(entries) > 0, "entries");
    };
    auto const discard = [&](RawSession const& session) {
        int const id = raw_send_search(session.get(), people().c_str(), everybody, nullptr);
        require(raw_read_entries(session.get(), id) == options.users, "entries");
    };
    auto const times = [](auto const& work) {
        return [work](unsigned long count) {
            for (; count > 0; --count) {
                work();
            }
        };
    };
    measureMemory(options, raw, connection);
    rounds.compare("big search",
                   {{"raw", times([&] { discard(raw); })},
                    {"raw again", times([&] { discard(again); })},
                    {"library", times([&] { awaitAndRead(*sentBy(connection), options.users); })},
                    {"engine", times(keep)}},
                   options.users);
}

} // namespace SolvaneBench
