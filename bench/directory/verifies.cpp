// Verifying passwords: a search and a bind, on kept connections.
#include "rows.h"

#include "RawSession.h"

#include <solvane/lookup.h>

namespace SolvaneBench {

using Solvane::LDAPLookup;

namespace {

/// A user of the data, with the password.
struct User {
    explicit User(std::string key)
        : address(std::move(key)), uid(address.substr(0, address.find('@'))),
          dn("uid=" + uid + "," + people()), password("pw-" + uid)
    {
    }

    std::string address;
    std::string uid;
    std::string dn;
    std::string password;
};

/// The same work with raw calls: finds the entry on one session, binds as it on another.
class RawVerifies {
public:
    /// @param keeps  the session of the binds; else each bind opens one
    RawVerifies(std::string uri, unsigned long users, bool keeps)
        : m_uri(std::move(uri)), m_searches(m_uri, reader()), m_binds(m_uri), m_keeps(keeps),
          m_addresses(users)
    {
    }

    void run(unsigned long count)
    {
        for (; count > 0; --count) {
            User const user(m_addresses.next());
            int const id = raw_send_search(m_searches.get(), people().c_str(),
                                           ("(mail=" + user.address + ")").c_str(), m_none.array());
            require(raw_read_entries(m_searches.get(), id) == 1, "the entry of a user");
            if (m_keeps) {
                raw_bind(m_binds.get(), user.dn.c_str(), user.password.c_str());
            } else {
                RawSession(m_uri, {user.dn, user.password});
            }
        }
    }

private:
    std::string m_uri;
    RawSession m_searches;
    RawSession m_binds;
    bool m_keeps;
    NameList m_none{{"1.1"}};
    Addresses m_addresses;
};

class EngineVerifies {
public:
    EngineVerifies(Options const& options, bool isSecure)
        : m_lookup(settingsFor(options, isSecure)), m_addresses(options.users)
    {
    }

    void run(unsigned long count)
    {
        for (; count > 0; --count) {
            User const user(m_addresses.next());
            require(m_lookup.verify(user.address, user.password).outcome ==
                        LDAPLookup::VerifyOutcome::Accepted,
                    "a right password");
        }
    }

private:
    static LDAPLookup::Settings settingsFor(Options const& options, bool isSecure)
    {
        LDAPLookup::Settings settings;
        settings.servers.emplace_back();
        settings.servers.back().host = options.host;
        settings.servers.back().port = isSecure ? options.securePort : options.port;
        settings.servers.back().secure = isSecure;
        settings.tls.verify = Solvane::Lookup::TlsVerify::none; // as the raw calls
        settings.bindDn = reader().dn;
        settings.password = reader().password;
        settings.base = people();
        settings.queryTemplate = "(mail=$m)";
        return settings;
    }

    LDAPLookup m_lookup;
    Addresses m_addresses;
};

void compareVerifies(std::string const& row, Options const& options, bool isSecure,
                     Rounds const& rounds)
{
    std::string const uri = isSecure ? options.secureUri() : options.uri();
    RawVerifies raw(uri, options.users, true);
    RawVerifies rawAgain(uri, options.users, true);
    RawVerifies rawNew(uri, options.users, false);
    EngineVerifies engine(options, isSecure);
    rounds.compare(row, {{"raw", [&](unsigned long count) { raw.run(count); }},
                         {"raw again", [&](unsigned long count) { rawAgain.run(count); }},
                         {"raw, new connections", [&](unsigned long count) { rawNew.run(count); }},
                         {"engine", [&](unsigned long count) { engine.run(count); }}});
}

} // namespace

void verifies(Options const& options, Rounds const& rounds)
{
    raw_accept_any_certificate();
    compareVerifies("verify", options, false, rounds);
    compareVerifies("verify over TLS", options, true, rounds);
}

} // namespace SolvaneBench
