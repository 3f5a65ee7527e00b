// Decoding of received messages: the library, and OpenLDAP's calls only.
#include "RawSession.h"
#include "ReplayServer.h"

#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>

#include <benchmark/benchmark.h>

#include <list>

namespace {

using Solvane::LDAPMessageBuffer;
using Solvane::LDAPResultImpl;

/// Messages of a search, with the session that received them.
class Received {
public:
    explicit Received(unsigned long entries) : m_session(m_server.uri())
    {
        m_server.answer(SolvaneBench::peopleEntries(entries));
        int const id = raw_send_search(session(), "", "(objectClass=*)", nullptr);
        do {
            LDAPMessageBuffer& message = m_messages.emplace_back();
            ldap_result(session(), id, LDAP_MSG_ONE, nullptr, message.address());
        } while (ldap_msgtype(m_messages.back().get()) == LDAP_RES_SEARCH_ENTRY);
    }

    LDAP* session() const { return m_session.get(); }
    std::list<LDAPMessageBuffer>& messages() { return m_messages; }

private:
    SolvaneBench::ReplayServer m_server;
    SolvaneBench::RawSession m_session;
    std::list<LDAPMessageBuffer> m_messages;
};

void store(benchmark::State& state)
{
    Received received(static_cast<unsigned long>(state.range(0)));
    for (auto _ : state) {
        LDAPResultImpl result(received.session());
        for (LDAPMessageBuffer& message : received.messages()) {
            result.parseMessage(message);
        }
        benchmark::DoNotOptimize(result.searchResultEntries().size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void readAlone(benchmark::State& state)
{
    Received received(static_cast<unsigned long>(state.range(0)));
    for (auto _ : state) {
        unsigned long bytes = 0;
        for (LDAPMessageBuffer const& message : received.messages()) {
            if (ldap_msgtype(message.get()) == LDAP_RES_SEARCH_ENTRY) {
                bytes += raw_read_entry(received.session(), message.get());
            } else {
                int code = 0;
                ldap_parse_result(received.session(), message.get(), &code, nullptr, nullptr,
                                  nullptr, nullptr, 0);
            }
        }
        benchmark::DoNotOptimize(bytes);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

BENCHMARK(readAlone)->Name("entries, raw")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(store)->Name("entries, stored")->Arg(1)->Arg(100)->Arg(10000);
