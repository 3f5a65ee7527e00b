// What printers_test.py has gdb print: one object of each kind, at a place where all of them are alive.
#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>

#include <list>
#include <string>

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

} // namespace

int main()
{
    Buffer const bytes("a\0b\n", 4, false);
    LDAPAttributeType const type("userCertificate;binary;x-first");
    LDAPAttribute const mail = attributeOf("mail", {"anna@corp.test", "j\xc3\xbcrg@corp.test"});
    LDAPAttribute const noAttribute;
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
    LDAPConnection const idle(server, false);
    LDAPConnection const noConnection;

    LDAPSearch search(connection, LDAPSearch::Parameter("dc=corp,dc=test"));
    LDAPResult const noResult;
    LDAPResult const result(nullptr);
    LDAPException const refused = failure();

    stopHere();
    return bytes.length() == 4 && !type.isNull() && !same.isNull() && !search.isNull() ? 0 : 1;
}
