// The rows of the program, each compared with raw OpenLDAP calls on separate sessions.
#ifndef SOLVANE_BENCH_DIRECTORY_ROWS_H
#define SOLVANE_BENCH_DIRECTORY_ROWS_H

#include "Options.h"
#include "Rounds.h"

namespace SolvaneBench {

/// Sequential lookups: kept connection, template and pool, the engine; raw calls twice, for the noise.
void lookups(Options const& options, Rounds const& rounds);
/// 1, 8 and 64 searches in flight on one connection; the engine's bulk run.
void windows(Options const& options, Rounds const& rounds);
/// One search for all entries, stored, compared with a loop that stores nothing; and the memory.
void bigSearch(Options const& options, Rounds const& rounds);
/// Connect, bind, close: plain and TLS, and the duration of a TLS bind to a silent peer.
void binds(Options const& options, Rounds const& rounds);
/// Passwords verified: by the engine, and with raw calls on kept connections and on new ones.
void verifies(Options const& options, Rounds const& rounds);
/// Adds, one at a time and 64 in flight.
void adds(Options const& options, Rounds const& rounds);
/// Lookups from 1 to 64 threads: raw and kept connections, the pool, the engine.
void threads(Options const& options, Rounds const& rounds);

} // namespace SolvaneBench

#endif
