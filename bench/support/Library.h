// The library's side of each comparison, written like a program; and a connection of the engine, without
// its pool.
#ifndef SOLVANE_BENCH_LIBRARY_H
#define SOLVANE_BENCH_LIBRARY_H

#include <solvane/ldap.h>
#include <solvane/session/Session.h>

#include <list>
#include <string>
#include <vector>

namespace SolvaneBench {

/// The identity of a connection.
struct Credentials {
    std::string dn;
    std::string password;
};

Solvane::LDAPConnection::RefServer serverAt(std::string const& host, unsigned int port,
                                            bool secure = false);
/// A connection with a confirmed bind.
Solvane::LDAPConnection openBound(Solvane::LDAPConnection::RefServer const& server,
                                  Credentials const& credentials);

/// Waits for a search to end.
void await(Solvane::LDAPSearch& search);
/// Reads the DN, every attribute and every value. Returns the number of their bytes.
unsigned long readEntry(Solvane::LDAPSearchResultEntry const& entry);
unsigned long readEntries(std::list<Solvane::LDAPSearchResultEntry> const& entries);

/// Waits for a search and reads its result; aborts the process unless it has `expected` entries.
void awaitAndRead(Solvane::LDAPSearch& search, unsigned long expected);
/// Aborts the process with a message if the answers are wrong.
void require(bool isRight, char const* what);

/// Attribute names for the raw calls.
class NameList {
public:
    explicit NameList(std::vector<std::string> names) : m_names(std::move(names))
    {
        for (std::string& name : m_names) {
            m_pointers.push_back(name.data());
        }
        m_pointers.push_back(nullptr);
    }
    NameList(NameList const&) = delete;
    NameList& operator=(NameList const&) = delete;

    char** array() { return m_pointers.data(); }
    std::list<Solvane::LDAPAttributeType> types() const
    {
        return std::list<Solvane::LDAPAttributeType>(m_names.begin(), m_names.end());
    }

private:
    std::vector<std::string> m_names;
    std::vector<char*> m_pointers;
};

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
