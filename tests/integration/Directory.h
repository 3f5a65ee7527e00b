// What these tests do again and again with a directory, and names from its data.
#ifndef SOLVANE_TESTS_INTEGRATION_DIRECTORY_H
#define SOLVANE_TESTS_INTEGRATION_DIRECTORY_H

#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>

#include <string>
#include <vector>

namespace SolvaneTest {

constexpr char readerDn[] = "cn=reader,dc=corp,dc=test";
constexpr char readerPassword[] = "reader-pw";
constexpr char people[] = "ou=people,dc=corp,dc=test";

/// A server on this host, without TLS.
Solvane::LDAPConnection::RefServer plainServer(unsigned int port, unsigned int networkTimeout = 10);
/// A server on this host, with TLS.
Solvane::LDAPConnection::RefServer secureServer(unsigned int port,
                                                unsigned int networkTimeout = 10);
/// A server on this host that is spoken to in protocol version 2.
Solvane::LDAPConnection::RefServer version2Server(unsigned int port);

void bindAsReader(Solvane::LDAPConnection& connection);
/// A new connection, bound as the reader.
Solvane::LDAPConnection boundTo(Solvane::LDAPConnection::RefServer const& server);
/// A new connection that is never bound.
Solvane::LDAPConnection anonymousTo(Solvane::LDAPConnection::RefServer const& server);

Solvane::LDAPSearch::Parameter searchFor(std::string const& baseDN, std::string const& filter);
/// A search for the object `dn` itself.
Solvane::LDAPSearch::Parameter lookupOf(std::string const& dn);
/// Runs a search to its end.
/// @throws std::runtime_error  no answer within ten seconds
Solvane::LDAPResult answerTo(Solvane::LDAPSearch& search);
Solvane::LDAPResult answerTo(Solvane::LDAPConnection& connection,
                             Solvane::LDAPSearch::Parameter const& parameter);

/// An attribute with one value.
Solvane::LDAPAttribute attributeOf(std::string const& type, std::string const& value);

/// The DNs of the entries found, in order.
std::vector<std::string> namesIn(Solvane::LDAPResult const& result);
/// The attribute descriptions of the only entry found, in order.
std::vector<std::string> descriptionsIn(Solvane::LDAPResult const& result);
/// The values of one attribute of the only entry found; empty if it lacks the attribute.
std::vector<std::string> valuesIn(Solvane::LDAPResult const& result,
                                  std::string const& description);

} // namespace SolvaneTest

#endif
