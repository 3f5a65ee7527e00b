// Growth of the cost of a search with the size of its result, and of opening connections with their
// number. The server is in this program and answers from memory; the measure is the processor time of
// the client's thread. Prints records on standard output.
//
//   solvane_bench_growth [--quick]
#include "Library.h"
#include "RawSession.h"
#include "ReplayServer.h"
#include "Rounds.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <vector>

namespace {

using namespace SolvaneBench;
using Solvane::LDAPConnection;
using Solvane::LDAPSearch;

/// A series of answers by size.
struct Series {
    char const* name;
    std::vector<unsigned long> sizes;
    unsigned long (*entriesFor)(unsigned long size);
    Answer (*answerFor)(unsigned long size);
};

Answer oneValueOf(unsigned long bytes)
{
    Answer answer;
    answer.add("uid=photo,dc=corp,dc=test", {{"jpegPhoto", {std::string(bytes, 'x')}}});
    return answer;
}

Answer oneGroupOf(unsigned long members)
{
    std::vector<std::string> values;
    for (unsigned long i = 0; i < members; ++i) {
        values.push_back("uid=user" + std::to_string(1000000 + i) + ",ou=people,dc=corp,dc=test");
    }
    Answer answer;
    answer.add("cn=group,dc=corp,dc=test", {{"member", values}});
    return answer;
}

constexpr unsigned long wideEntries = 20;

std::vector<SolvaneTest::Attribute> listOf(unsigned long attributes)
{
    std::vector<SolvaneTest::Attribute> list;
    for (unsigned long i = 0; i < attributes; ++i) {
        list.push_back({"attribute" + std::to_string(i), {"value " + std::to_string(i)}});
    }
    return list;
}

Answer entriesOfAttributes(unsigned long attributes)
{
    std::vector<SolvaneTest::Attribute> const list = listOf(attributes);
    Answer answer;
    for (unsigned long i = 0; i < wideEntries; ++i) {
        answer.add("uid=wide" + std::to_string(i) + ",dc=corp,dc=test", list);
    }
    return answer;
}

Answer entryOfAttributes(unsigned long attributes)
{
    Answer answer;
    answer.add("uid=wide,dc=corp,dc=test", listOf(attributes));
    return answer;
}

unsigned long one(unsigned long) { return 1; }
unsigned long asManyAs(unsigned long size) { return size; }
unsigned long wide(unsigned long) { return wideEntries; }

std::vector<Series> const allSeries = {
    {"entries", {1, 10, 100, 1000, 10000, 100000}, asManyAs, peopleEntries},
    {"attributes", {8, 32, 128, 512}, wide, entriesOfAttributes},
    {"values", {1, 10, 100, 300, 1000, 3000, 10000}, one, oneGroupOf},
    {"value size", {1000, 10000, 100000, 300000, 1000000, 3000000, 10000000}, one, oneValueOf},
};

/// Sizes at which calls that look for an attribute by its name would take minutes.
std::vector<Series> const readerSeries = {
    {"attributes, engine", {1000, 3000, 10000, 20000}, one, entryOfAttributes},
    {"values, engine", {1000, 3000, 10000, 20000}, one, oneGroupOf},
};

/// Both ways to search: the library and raw calls.
class Searchers {
public:
    explicit Searchers(ReplayServer const& server)
        : m_raw(server.uri()), m_connection(serverAt("127.0.0.1", server.port()), true)
    {
    }

    void raw(unsigned long expected, unsigned long (*read)(LDAP*, int))
    {
        int const id = raw_send_search(m_raw.get(), "", "(objectClass=*)", nullptr);
        require(read(m_raw.get(), id) == expected, "entries");
    }

    std::unique_ptr<LDAPSearch> sent()
    {
        LDAPSearch::Parameter parameter;
        parameter.filter = "(objectClass=*)";
        auto search = std::make_unique<LDAPSearch>(m_connection, parameter);
        search->send();
        return search;
    }

    void library(unsigned long expected) { awaitAndRead(*sent(), expected); }

private:
    RawSession m_raw;
    LDAPConnection m_connection;
};

std::function<void(unsigned long)> repeated(std::function<void()> const& work)
{
    return [work](unsigned long count) {
        for (; count > 0; --count) {
            work();
        }
    };
}

void measure(Series const& series, std::size_t sizes, Rounds const& rounds)
{
    ReplayServer server;
    for (std::size_t i = 0; i < sizes; ++i) {
        unsigned long const size = series.sizes[i];
        unsigned long const entries = series.entriesFor(size);
        Answer const answer = series.answerFor(size);
        Rounds::note(series.name, "wire", "bytes", static_cast<double>(answer.messages(2).size()),
                     size);
        server.answer(answer);
        Searchers searchers(server);
        rounds.compare(
            series.name,
            {{"raw", repeated([&] { searchers.raw(entries, raw_read_entries); })},
             {"raw in order", repeated([&] { searchers.raw(entries, raw_read_entries_in_order); })},
             {"library", repeated([&] { searchers.library(entries); })}},
            size);
        unsigned long const before = heapBytes();
        auto const stored = searchers.sent();
        await(*stored);
        Rounds::note(series.name, "library", "heap", static_cast<double>(heapBytes() - before),
                     size);
    }
}

/// The engine's reader alone.
void measureReader(Series const& series, Rounds const& rounds)
{
    ReplayServer server;
    for (unsigned long const size : series.sizes) {
        server.answer(series.answerFor(size));
        EngineSession engine("127.0.0.1", server.port());
        auto const read = [&] {
            require(readEntries(engine.search("", "(objectClass=*)")) > 0, "entries");
        };
        rounds.compare(series.name, {{"engine", repeated(read)}}, size);
    }
}

/// Opens and binds connections; the destructor closes them.
template <typename Session, typename Open> void openAll(unsigned long count, Open const& open)
{
    std::vector<Session> sessions;
    sessions.reserve(count);
    while (sessions.size() < count) {
        sessions.push_back(open());
    }
}

/// The cost of opening and binding, by the number of open connections.
void measureConnections(std::vector<unsigned long> const& sizes, Rounds const& rounds)
{
    ReplayServer const server;
    LDAPConnection::RefServer const target = serverAt("127.0.0.1", server.port());
    Credentials const credentials = {"cn=reader,dc=corp,dc=test", "reader-pw"};
    for (unsigned long const size : sizes) {
        auto const raw = [&] {
            openAll<RawSession>(size, [&] { return RawSession(server.uri(), credentials); });
        };
        auto const library = [&] {
            openAll<LDAPConnection>(size, [&] { return openBound(target, credentials); });
        };
        rounds.compare("connections", {{"raw", repeated(raw)}, {"library", repeated(library)}},
                       size);
    }
}

} // namespace

int main(int count, char** words)
{
    bool const isQuick = count > 1 && std::strcmp(words[1], "--quick") == 0;
    try {
        Rounds const rounds(isQuick ? 3 : 7, isQuick ? 0.03 : 0.1, Cpu::thread);
        for (Series const& series : allSeries) {
            bool const isShortened = isQuick && series.entriesFor(2) == 2;
            measure(series, series.sizes.size() - (isShortened ? 1 : 0), rounds);
        }
        for (Series const& series : readerSeries) {
            measureReader(series, rounds);
        }
        measureConnections(isQuick ? std::vector<unsigned long>{1, 16, 256}
                                   : std::vector<unsigned long>{1, 4, 16, 64, 256, 1024, 4096},
                           rounds);
        return 0;
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "solvane_bench_growth: %s\n", failure.what());
    } catch (Solvane::Exception const& failure) {
        std::fprintf(stderr, "solvane_bench_growth: %s\n", failure.stringParameter().c_str());
    }
    return 1;
}
