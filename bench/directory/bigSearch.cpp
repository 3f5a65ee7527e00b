// One search that finds every entry, with all attributes: stored, and streamed.
#include "rows.h"

#include "Library.h"
#include "RawSession.h"

#include <memory>

namespace SolvaneBench {

using Solvane::LDAPConnection;
using Solvane::LDAPSearch;
using Solvane::LDAPSearchStream;

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

/// Reads every entry of a stream, and stores none.
void readStream(LDAPConnection const& connection, int pageSize, unsigned long expected)
{
    LDAPSearchStream::Parameter parameter(people());
    parameter.filter = everybody;
    parameter.pageSize = pageSize;
    LDAPSearchStream stream(connection, parameter);
    stream.send();
    unsigned long entries = 0;
    while (stream.next(30) == LDAPSearchStream::ItemEntry) {
        require(readEntry(stream.entry()) > 0, "entry of a stream");
        ++entries;
    }
    require(entries == expected && stream.result().resultCode() == 0, "entries of a stream");
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
    EngineSession engine(options.host, options.port, reader());
    auto const keep = [&] {
        auto const entries = engine.search(people(), everybody);
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
                    {"stream", times([&] { readStream(connection, 0, options.users); })},
                    {"stream, pages", times([&] { readStream(connection, 1000, options.users); })},
                    {"engine", times(keep)}},
                   options.users);
}

} // namespace SolvaneBench
