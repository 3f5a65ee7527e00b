// The engine does everything itself; with the pool, the caller does.
#include "Ways.h"

namespace SolvaneTest {

using Solvane::LDAPConnection;
using Solvane::LDAPException;
using Solvane::LDAPLookup;
using Solvane::LDAPSearch;

namespace {

constexpr int serverDown = -1;
constexpr int timedOut = -5;

LDAPConnection::RefServer describe(LDAPLookup::Settings const& settings)
{
    LDAPLookup::Server const& server = settings.servers.front();
    return {server.host, server.port, server.version, server.secure, settings.networkTimeout,
            false,       false};
}

LDAPLookup::Answer noAnswer(int code, std::string const& text)
{
    LDAPLookup::Answer answer;
    answer.outcome = LDAPLookup::Outcome::TryLater;
    answer.code = code;
    answer.text = text;
    return answer;
}

} // namespace

EngineWay::EngineWay(LDAPLookup::Settings const& settings) : m_lookup(settings) {}

LDAPLookup::Answer EngineWay::lookUp(std::string const& address) { return m_lookup.find(address); }

std::map<std::string, unsigned long> EngineWay::statistics() const
{
    LDAPLookup::Statistics const counted = m_lookup.statistics();
    return {{"opened", counted.opened},
            {"reused", counted.reused},
            {"stale", counted.stale},
            {"repeated", counted.repeated}};
}

PoolWay::PoolWay(LDAPLookup::Settings const& settings)
    : m_settings(settings), m_server(describe(settings))
{
}

LDAPLookup::Answer PoolWay::lookUp(std::string const& address)
{
    try {
        return lookUpOnce(address);
    } catch (LDAPException const&) {
        // If one connection broke, the idle ones are probably broken too.
        m_pool.clear();
        ++m_repeated;
    }
    try {
        return lookUpOnce(address);
    } catch (LDAPException const& failure) {
        return noAnswer(serverDown, failure.asString());
    }
}

LDAPLookup::Answer PoolWay::lookUpOnce(std::string const& address)
{
    LDAPConnection connection =
        m_pool.getConnection(m_server, m_settings.bindDn, m_settings.password);
    if (connection.isNull()) {
        return noAnswer(0, "the server refused the bind");
    }
    struct Marker {
        LDAPConnection& taken;
        ~Marker() { taken.cacheMarkAsAvailable(); }
    } const marker{connection};
    return search(connection, address);
}

LDAPLookup::Answer PoolWay::search(LDAPConnection& connection, std::string const& address)
{
    LDAPSearch::Parameter parameter(m_settings.base);
    parameter.filter = Solvane::LDAPUtil::instanceFilterTemplate(m_settings.queryTemplate,
                                                                 Solvane::EmailAddress(address));
    for (std::string const& name : m_settings.attributes) {
        parameter.attributes.emplace_back(name);
    }
    LDAPSearch request(connection, parameter);
    request.send();
    if (request.wait(m_settings.networkTimeout)) {
        connection.unbind(); // or a late answer would stay on it
        return noAnswer(timedOut, "no answer in time");
    }
    LDAPLookup::Answer answer;
    answer.code = request.result().resultCode();
    answer.text = request.result().errorMessage();
    answer.entries = request.result().searchResultEntries();
    if (answer.code != 0) {
        answer.outcome = Solvane::Lookup::outcomeOfSearch(answer.code);
    } else {
        answer.outcome =
            answer.entries.empty() ? LDAPLookup::Outcome::NotFound : LDAPLookup::Outcome::Found;
    }
    return answer;
}

std::map<std::string, unsigned long> PoolWay::statistics() const
{
    return {{"reused", m_pool.cacheHits().value()}, {"repeated", m_repeated}};
}

} // namespace SolvaneTest
