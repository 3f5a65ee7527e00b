// Connections and searches through the library.
#include "Library.h"

#include <solvane/session/EntryReader.h>

#include <ldap.h>

#include <cstdio>
#include <cstdlib>

namespace SolvaneBench {

using Solvane::LDAPConnection;
using Solvane::LDAPSearch;
using Solvane::Lookup::Session;

namespace {

Solvane::Lookup::SessionOptions optionsFor(std::string const& host, unsigned int port,
                                           Credentials const& credentials)
{
    Solvane::Lookup::SessionOptions options;
    options.host = host;
    options.port = port;
    options.bindDn = credentials.dn;
    options.password = &credentials.password;
    return options;
}

} // namespace

LDAPConnection::RefServer serverAt(std::string const& host, unsigned int port, bool secure)
{
    constexpr unsigned int networkTimeout = 30;
    return LDAPConnection::RefServer(host, port, LDAPConnection::V3, secure, networkTimeout, false,
                                     false);
}

LDAPConnection openBound(LDAPConnection::RefServer const& server, Credentials const& credentials)
{
    LDAPConnection connection(server, false);
    connection.bind(credentials.dn, credentials.password, LDAPConnection::Asynchronous);
    require(connection.bindWait(30), "bind");
    return connection;
}

void await(LDAPSearch& search)
{
    while (search.wait(30)) {
    }
}

unsigned long readEntry(Solvane::LDAPSearchResultEntry const& entry)
{
    unsigned long bytes = entry.entryName().size();
    for (Solvane::LDAPAttribute const& attribute : entry.attributes().attributes()) {
        for (Solvane::Buffer const& value : attribute.binaryValue()) {
            bytes += value.length();
        }
    }
    return bytes;
}

unsigned long readEntries(std::list<Solvane::LDAPSearchResultEntry> const& entries)
{
    unsigned long bytes = 0;
    for (Solvane::LDAPSearchResultEntry const& entry : entries) {
        bytes += readEntry(entry);
    }
    return bytes;
}

void awaitAndRead(LDAPSearch& search, unsigned long expected)
{
    await(search);
    std::list<Solvane::LDAPSearchResultEntry> const& entries =
        search.result().searchResultEntries();
    require(entries.size() == expected && readEntries(entries) > 0, "entries");
}

void require(bool isRight, char const* what)
{
    if (!isRight) {
        std::fprintf(stderr, "bench: wrong %s\n", what);
        std::exit(1);
    }
}

EngineSession::EngineSession(std::string const& host, unsigned int port,
                             Credentials const& credentials)
    : m_credentials(credentials), m_session(optionsFor(host, port, m_credentials))
{
    auto const soon = Solvane::Lookup::Clock::now() + std::chrono::seconds(10);
    require(m_session.reach(Solvane::Lookup::Step::bind, soon).isGood(), "the engine's bind");
}

std::list<Solvane::LDAPSearchResultEntry> EngineSession::search(std::string const& base,
                                                                std::string const& filter)
{
    Solvane::Lookup::SearchRequest request;
    request.base = base;
    int id = 0;
    require(m_session.send(request, filter, id).isGood(), "the engine's search");
    std::list<Solvane::LDAPSearchResultEntry> entries;
    Session::Message message;
    Solvane::Lookup::Waits waits;
    for (;;) {
        Session::Received const received = m_session.receive(message);
        require(received != Session::Received::broken, "the engine's connection");
        if (received == Session::Received::nothing) {
            waits.clear();
            m_session.waits(waits);
            waits.wait();
        } else if (message.type != LDAP_RES_SEARCH_ENTRY) {
            return entries;
        } else {
            require(Solvane::Lookup::readEntry(message.content, entries), "entry");
        }
    }
}

} // namespace SolvaneBench
