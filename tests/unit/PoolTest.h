// What the tests of the connection pool have in common.
#ifndef SOLVANE_TESTS_UNIT_POOL_TEST_H
#define SOLVANE_TESTS_UNIT_POOL_TEST_H

#include "CallTest.h"

#include <list>
#include <mutex>
#include <string>
#include <vector>

namespace SolvaneTest {

inline Solvane::LDAPConnection::RefServer serverAt(unsigned int port)
{
    return Solvane::LDAPConnection::RefServer("127.0.0.1", port, Solvane::LDAPConnection::V3, false,
                                              7, false, false);
}

/// A pool whose sockets are healthy, whose binds are accepted, and whose clock stands still.
class PoolTest : public CallTest {
protected:
    using Lists = std::vector<std::vector<std::string>>;

    PoolTest() : server(serverAt(389)), now(1000000)
    {
        openldap.time = [this](time_t*) { return now; };
        openldap.ldap_sasl_bind = [](auto, auto, auto, auto, auto, auto, int* messageId) {
            *messageId = 42;
            return LDAP_SUCCESS;
        };
        willAnswerBindsWith(LDAP_SUCCESS);
        openldap.ldap_get_option = [](LDAP*, int, void* descriptor) {
            *static_cast<int*>(descriptor) = 5;
            return LDAP_SUCCESS;
        };
        openldap.getsockopt = [](int, int, int, void* pending, socklen_t*) {
            *static_cast<int*>(pending) = 0;
            return 0;
        };
    }

    void willAnswerBindsWith(int code)
    {
        openldap.ldap_result = [this, code](LDAP*, int, int, timeval*, LDAPMessage** message) {
            std::lock_guard<std::mutex> const lock(m_answering);
            *message = messages.response(LDAP_RES_BIND, code);
            return ldap_msgtype(*message);
        };
    }

    Solvane::LDAPConnection unbound() { return cache.getConnection(server); }
    Solvane::LDAPConnection bound(std::string const& dn = "cn=a",
                                  std::string const& password = "secret")
    {
        return cache.getConnection(server, dn, password);
    }
    /// Gives a connection back to the pool. Names its body, which lives on there.
    static Solvane::LDAPConnectionImpl* givenBack(Solvane::LDAPConnection connection)
    {
        connection.cacheMarkAsAvailable();
        return connection.impl();
    }
    /// The same, with a name for its session; the calls so far are forgotten.
    Solvane::LDAPConnectionImpl* givenBackAs(std::string const& name,
                                             Solvane::LDAPConnection connection)
    {
        openldap.name(connection.context(), name);
        openldap.forgetCalls();
        return givenBack(std::move(connection));
    }

    /// The counters of the pool, and the number of connections in it.
    std::string state() const
    {
        std::list<Solvane::LDAPConnection::RefServer> servers;
        cache.connections(servers);
        return "hits " + std::to_string(cache.cacheHits().value()) + ", size " +
               std::to_string(cache.cacheSize().value()) + ", pooled " +
               std::to_string(servers.size());
    }

    /// One list of calls after the other.
    static std::vector<std::string> joined(Lists const& lists)
    {
        std::vector<std::string> all;
        for (auto const& list : lists) {
            all.insert(all.end(), list.begin(), list.end());
        }
        return all;
    }

    Solvane::LDAPConnection::RefServer const server;
    time_t now;
    Solvane::LDAPConnectionCache cache;

    std::vector<std::string> const opening{"time",
                                           "ldap_initialize ldap://[127.0.0.1]:389/",
                                           "ldap_set_option session REFERRALS off",
                                           "ldap_set_option session PROTOCOL_VERSION 3",
                                           "ldap_set_option session NETWORK_TIMEOUT 7s 0us",
                                           "ldap_set_option session RESTART on",
                                           "ldap_set_option session CONNECT_CB pointer"};
    std::vector<std::string> const sendingBind{
        "ber_str2bv 'secret' 0 0 null", "ldap_sasl_bind session 'cn=a' null 'secret' null null",
        "ber_bvfree 'secret'"};
    std::vector<std::string> const awaitingBind{
        "ldap_result session 42 0 7s 0us", "ldap_msgtype message",
        "ldap_parse_result session message null 0", "ldap_msgfree message"};
    std::vector<std::string> const checking{"ldap_get_option session DESC", "getsockopt 5 1 4 4"};

private:
    std::mutex m_answering;
};

} // namespace SolvaneTest

#endif
