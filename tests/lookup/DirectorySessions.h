// What the tests of one connection of the engine have in common: sessions, and what came of them.
#ifndef SOLVANE_TESTS_LOOKUP_DIRECTORY_SESSIONS_H
#define SOLVANE_TESTS_LOOKUP_DIRECTORY_SESSIONS_H

#include "Lookups.h"

#include <solvane/lookup/DirectorySession.h>

#include <solvane/ldap/impl.h>

#include <chrono>
#include <string>
#include <vector>

namespace SolvaneTest {

/// Deadlines: in so long, and late enough to be of no matter.
Solvane::Lookup::Clock::time_point in(std::chrono::milliseconds time);
Solvane::Lookup::Clock::time_point soon();

/// A server on this port of 127.0.0.1.
Solvane::LDAPConnection::RefServer
serverAt(unsigned int port, bool secure, unsigned int networkTimeout = 10,
         Solvane::LDAPConnection::Protocol version = Solvane::LDAPConnection::V3);

Solvane::Lookup::TlsPolicy policy(Solvane::Lookup::TlsVerify verify,
                                  std::string const& caFile = std::string());

/// Sessions that are still to connect.
Solvane::Lookup::DirectorySession plainSession(unsigned int port, unsigned int networkTimeout = 10);
Solvane::Lookup::DirectorySession secureSession(unsigned int port,
                                                Solvane::Lookup::TlsPolicy const& tls,
                                                std::string const& host = "127.0.0.1");

/// A search among the people.
Solvane::LDAPSearch::Parameter searchFor(std::string const& filter);

/// The verdict in one text: outcome, code, words.
std::string shown(Solvane::Lookup::Verdict const& verdict);

/// The types of the messages that arrive for `id`, up to the final one.
std::vector<int> typesFor(Solvane::Lookup::DirectorySession& session, int id);

} // namespace SolvaneTest

#endif
