// The ways in which a program can look up an address.
#ifndef SOLVANE_TESTS_SOAK_WAYS_H
#define SOLVANE_TESTS_SOAK_WAYS_H

#include <solvane/ldap.h>
#include <solvane/lookup.h>

#include <atomic>
#include <map>
#include <string>

namespace SolvaneTest {

/// A way, shared by several threads.
class Way {
public:
    virtual ~Way() = default;

    /// The entries with this mail address, their `mail` attribute with them.
    virtual Solvane::LDAPLookup::Answer lookUp(std::string const& address) = 0;
    /// Its counts by name.
    virtual std::map<std::string, unsigned long> statistics() const = 0;
};

/// The lookup engine.
class EngineWay : public Way {
public:
    explicit EngineWay(Solvane::LDAPLookup::Settings const& settings);

    Solvane::LDAPLookup::Answer lookUp(std::string const& address) override;
    std::map<std::string, unsigned long> statistics() const override;

private:
    Solvane::LDAPLookup m_lookup;
};

/// The pool of the object interface, used as in its guide: a lookup whose connection broke is
/// repeated once on another one.
class PoolWay : public Way {
public:
    /// Uses the first server of the settings, its network timeout, the credentials and the search.
    explicit PoolWay(Solvane::LDAPLookup::Settings const& settings);

    Solvane::LDAPLookup::Answer lookUp(std::string const& address) override;
    std::map<std::string, unsigned long> statistics() const override;

private:
    Solvane::LDAPLookup::Answer lookUpOnce(std::string const& address);
    Solvane::LDAPLookup::Answer search(Solvane::LDAPConnection& connection,
                                       std::string const& address);

    Solvane::LDAPLookup::Settings const m_settings;
    Solvane::LDAPConnection::RefServer const m_server;
    Solvane::LDAPConnectionCache m_pool;
    std::atomic<unsigned long> m_repeated{0};
};

/// The service, asked by the socketmap protocol: each thread has a connection of its own. Its map returns
/// uid and mail.
class ServiceWay : public Way {
public:
    /// @param socket  path of a UNIX socket
    /// @param base    of the entries
    ServiceWay(std::string socket, std::string base);

    /// An answer without an entry is `Misconfigured` if the service itself fails.
    Solvane::LDAPLookup::Answer lookUp(std::string const& address) override;
    /// The service counts for itself.
    std::map<std::string, unsigned long> statistics() const override { return {}; }

private:
    std::string ask(std::string const& address);

    std::string const m_socket;
    std::string const m_base;
};

} // namespace SolvaneTest

#endif
