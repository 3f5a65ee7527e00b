// The rows of the program, each compared with raw OpenLDAP calls on separate sessions; its options and keys.
#ifndef SOLVANE_BENCH_DIRECTORY_ROWS_H
#define SOLVANE_BENCH_DIRECTORY_ROWS_H

#include "Library.h"
#include "Rounds.h"

#include <string>
#include <vector>

namespace SolvaneBench {

/// The data are those of testbed/gen-ldif.
struct Options {
    std::string host = "127.0.0.1";
    unsigned int port = 0;
    unsigned int securePort = 0;
    std::string caFile;      ///< of the authority that signed the server's certificate
    unsigned long users = 0; ///< entries below ou=people
    unsigned int rounds = 15;
    double blockSeconds = 0.3;
    std::vector<std::string> rows; ///< to measure

    std::string uri() const { return "ldap://" + host + ":" + std::to_string(port); }
    std::string secureUri() const { return "ldaps://" + host + ":" + std::to_string(securePort); }
};

inline Credentials reader() { return {"cn=reader,dc=corp,dc=test", "reader-pw"}; }
inline std::string people() { return "ou=people,dc=corp,dc=test"; }

/// Addresses in an order that every contender repeats.
class Addresses {
public:
    explicit Addresses(unsigned long users) : m_users(users) {}

    std::string next()
    {
        m_state = m_state * 6364136223846793005ULL + 1442695040888963407ULL;
        std::string const number = std::to_string((m_state >> 33) % m_users + 1);
        return "user" + std::string(7 - number.size(), '0') + number + "@corp.test";
    }

private:
    unsigned long m_users;
    unsigned long long m_state = 1;
};

/// Sequential lookups: kept connection, template and pool, the engine; raw calls twice, for the noise.
void lookups(Options const& options, Rounds const& rounds);
/// 1, 8 and 64 searches in flight on one connection; the engine's bulk run.
void windows(Options const& options, Rounds const& rounds);
/// One search for all entries, stored and streamed, compared with a loop that stores nothing; and the
/// memory of what is stored.
void bigSearch(Options const& options, Rounds const& rounds);
/// Connect, bind, close: plain and TLS, and the duration of a TLS bind to a silent peer; the engine's
/// TLS sessions, full and resumed, and their memory.
void binds(Options const& options, Rounds const& rounds);
/// Passwords verified: by the engine, and with raw calls on kept connections and on new ones.
void verifies(Options const& options, Rounds const& rounds);
/// Adds, one at a time and 64 in flight.
void adds(Options const& options, Rounds const& rounds);
/// Modifies and deletes, one at a time.
void changes(Options const& options, Rounds const& rounds);
/// Lookups from 1 to 64 threads: raw and kept connections, the pool, the engine.
void threads(Options const& options, Rounds const& rounds);

} // namespace SolvaneBench

#endif
