// What printers_test.py has gdb print: one object of each kind, at a place where all of them are alive.
#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>

#include "LdapMessages.h"

#include <array>
#include <list>
#include <string>

#include <ldap.h>
#include <openldap.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace Solvane;

/// Where gdb stops.
__attribute__((noinline)) void stopHere() { asm volatile(""); }

LDAPAttribute attributeOf(std::string const& type, std::list<std::string> const& values)
{
    LDAPAttribute attribute((LDAPAttributeType(type)));
    for (std::string const& value : values) {
        attribute.value(value);
    }
    return attribute;
}

LDAPException failure()
{
    LDAPException cause("LDAPException", 4, "Connection.cpp", 297, 3);
    cause.stringParameter("Error: 'Invalid credentials'");
    LDAPException wrapped("LDAPException", 4, "Connection.cpp", 602, 0);
    try {
        throw cause;
    } catch (Exception const& caught) {
        wrapped.cause(caught);
    }
    return wrapped;
}

/// The attributes of all but the first entry of an answer are packed.
class TwoEntries {
public:
    TwoEntries()
    {
        std::array<int, 2> ends{};
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data());
        ldap_init_fd(ends[0], LDAP_PROTO_TCP, "ldap://peer/", &m_session);
        int id = 0;
        ldap_search_ext(m_session, "", LDAP_SCOPE_BASE, nullptr, nullptr, 0, nullptr, nullptr,
                        nullptr, 0, &id);
        std::string const sent =
            SolvaneTest::searchEntry(id, "cn=first", {{"cn", {"first"}}}) +
            SolvaneTest::searchEntry(id, "cn=later", {{"cn", {"later", "l"}}, {"mail", {}}});
        m_isSent = ::write(ends[1], sent.data(), sent.size()) == static_cast<ssize_t>(sent.size());
        ::close(ends[1]);
        m_result = LDAPResult(m_session);
        for (int i = 0; m_isSent && i < 2; ++i) {
            LDAPMessageBuffer message;
            ldap_result(m_session, id, LDAP_MSG_ONE, nullptr, message.address());
            m_result.impl()->parseMessage(message);
        }
    }
    ~TwoEntries() { ldap_unbind_ext(m_session, nullptr, nullptr); }
    TwoEntries(TwoEntries const&) = delete;
    TwoEntries& operator=(TwoEntries const&) = delete;

    LDAPSearchResultEntry const& later() const { return m_result.searchResultEntries().back(); }

private:
    LDAP* m_session = nullptr;
    bool m_isSent = false;
    LDAPResult m_result;
};

} // namespace

int main()
{
    Buffer const bytes("a\0b\n", 4, false);
    LDAPAttributeType const type("userCertificate;binary;x-first");
    LDAPAttribute const mail = attributeOf("mail", {"anna@corp.test", "j\xc3\xbcrg@corp.test"});
    LDAPAttribute const noAttribute;
    TwoEntries const received;
    LDAPSearchResultEntry const later = received.later();
    LDAPSearchResultEntry const entry("uid=anna,dc=corp,dc=test", {mail, attributeOf("cn", {})});

    LDAPConnection::RefServer const server("127.0.0.1", 1, LDAPConnection::V3, false, 5, false,
                                           false);
    LDAPConnection connection(server, false);
    LDAPConnection const same = connection;
    connection.cacheMarkAsUsed();
    try {
        connection.bind("cn=reader,dc=corp,dc=test", "hidden-word", LDAPConnection::Synchronous);
    } catch (LDAPException const&) {
        // Nobody listens on port 1; the connection remembers what it was asked for.
    }
    LDAPConnection const noConnection;

    LDAPSearch search(connection, LDAPSearch::Parameter("dc=corp,dc=test"));
    LDAPResult const noResult;
    LDAPResult const result(nullptr);
    LDAPException const refused = failure();

    stopHere();
    return bytes.length() == 4 && !type.isNull() && !same.isNull() && !search.isNull() ? 0 : 1;
}
