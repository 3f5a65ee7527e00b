// Connections and searches through the library.
#include "Library.h"

#include <cstdio>
#include <cstdlib>

namespace SolvaneBench {

using Solvane::LDAPConnection;
using Solvane::LDAPSearch;

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

unsigned long readEntries(std::list<Solvane::LDAPSearchResultEntry> const& entries)
{
    unsigned long bytes = 0;
    for (Solvane::LDAPSearchResultEntry const& entry : entries) {
        bytes += entry.entryName().size();
        for (Solvane::LDAPAttribute const& attribute : entry.attributes().attributes()) {
            for (Solvane::Buffer const& value : attribute.binaryValue()) {
                bytes += value.length();
            }
        }
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

} // namespace SolvaneBench
