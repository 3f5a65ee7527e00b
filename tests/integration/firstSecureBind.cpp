// Binds over TLS as the first thing that its process does with the library: firstSecureBind PORT.
// Exit status 0 when the server on that port of this host grants the bind.
#include <solvane/ldap.h>

#include <cstdio>
#include <cstdlib>

using Solvane::LDAPConnection;

int main(int argumentCount, char** arguments)
{
    if (argumentCount != 2) {
        return 2;
    }
    unsigned int const port = static_cast<unsigned int>(std::strtoul(arguments[1], nullptr, 10));
    try {
        LDAPConnection::RefServer const server("127.0.0.1", port, LDAPConnection::V3, true, 10,
                                               false, false);
        LDAPConnection connection(server, false);
        connection.bind("cn=reader,dc=corp,dc=test", "reader-pw", LDAPConnection::Synchronous);
    } catch (Solvane::Exception const& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str());
        return 1;
    }
    return 0;
}
