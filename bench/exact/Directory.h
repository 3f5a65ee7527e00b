// The server of the counted work. Its answers are the same in every run, and have arrived completely
// before they are read.
#ifndef SOLVANE_BENCH_EXACT_DIRECTORY_H
#define SOLVANE_BENCH_EXACT_DIRECTORY_H

#include "ScriptedServer.h"

#include <cstddef>

namespace SolvaneBench {

/// A directory that accepts every bind. A search under `onePerson` returns one entry with the requested
/// attribute; a search under `manyPersons` returns `personCount` entries with all attributes.
class Directory {
public:
    static constexpr char onePerson[] = "uid=user0000007,ou=people,dc=corp,dc=test";
    static constexpr char manyPersons[] = "ou=people,dc=corp,dc=test";
    static constexpr unsigned int personCount = 32;
    /// Of one address space: ids up to here take one byte, which keeps all answers alike.
    static constexpr int lastMessageId = 127;

    Directory();

    unsigned int port() const { return m_server.port(); }

    /// Waits until the answer to a search has arrived completely, so that reading it does not block.
    static void awaitAnswer(int descriptor, char const* base);
    /// The mean length of an entry of `manyPersons` on the wire, in bytes.
    static double bytesOfAPerson();

private:
    SolvaneTest::ScriptedServer m_server;
};

} // namespace SolvaneBench

#endif
