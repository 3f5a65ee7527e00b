// A connection of the engine, without its pool.
#ifndef SOLVANE_BENCH_ENGINE_SESSION_H
#define SOLVANE_BENCH_ENGINE_SESSION_H

#include "Library.h"

#include <solvane/session/Session.h>

#include <list>
#include <string>

namespace SolvaneBench {

/// An open session on which searches are read as lookups read them.
class EngineSession {
public:
    /// @param credentials  no DN: anonymous
    EngineSession(std::string const& host, unsigned int port, Credentials const& credentials = {});

    /// All entries of a search of the subtree; aborts the process if it fails.
    std::list<Solvane::LDAPSearchResultEntry> search(std::string const& base,
                                                     std::string const& filter);

private:
    Credentials const m_credentials;
    Solvane::Lookup::Session m_session;
};

} // namespace SolvaneBench

#endif
