// Searches on a session of the engine.
#include "EngineSession.h"

#include <solvane/session/EntryReader.h>

#include <ldap.h>

namespace SolvaneBench {

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
