// What some of the ways have around them: a name with a dead address, a server that spoils its searches.
#ifndef SOLVANE_TESTS_SOAK_SURROUNDINGS_H
#define SOLVANE_TESTS_SOAK_SURROUNDINGS_H

#include "FaultyServer.h"
#include "NameServer.h"

namespace SolvaneTest {

/// A name of two addresses: nobody listens at the first, the servers of the load are at the second.
class HalfDeadName {
public:
    static constexpr char name[] = "ldap.corp.test";

    HalfDeadName();

    /// Of the name server that knows it.
    std::string nameServer() const { return m_names.address(); }

private:
    NameServer m_names;
};

/// A server that accepts every bind and fails every search: it says in turn that it is busy, that
/// something went wrong, what is not LDAP, and nothing more as it closes the connection.
class SpoilingServer {
public:
    unsigned int port() const { return m_server.port(); }

private:
    FaultyServer m_server{spoil};

    static void spoil(FaultyServer::Peer& peer);
};

} // namespace SolvaneTest

#endif
