// Entries below ou=new that are modified and deleted, one at a time.
#include "rows.h"

#include "RawSession.h"

#include <vector>

#include <unistd.h>

namespace SolvaneBench {

using Solvane::LDAPConnection;
using Solvane::LDAPDelete;
using Solvane::LDAPModify;
using Solvane::LDAPOperation;

namespace {

/// DNs that are unique among runs against the same directory.
std::string nextDn()
{
    static unsigned long named = 0;
    return "cn=c" + std::to_string(getpid()) + "-" + std::to_string(++named) +
           ",ou=new,dc=corp,dc=test";
}

/// A change of one attribute, with one value.
class RawChange {
public:
    RawChange(int operation, std::string type, std::string value)
        : m_type(std::move(type)),
          m_value(std::move(value)), m_change{operation, m_type.data(), {m_values}}
    {
    }
    RawChange(RawChange const&) = delete;
    RawChange& operator=(RawChange const&) = delete;

    LDAPMod* get() { return &m_change; }

private:
    std::string m_type;
    std::string m_value;
    char* m_values[2] = {m_value.data(), nullptr};
    LDAPMod m_change;
};

/// Adds an entry; returns its DN.
std::string addedBy(RawSession const& session)
{
    std::string const dn = nextDn();
    RawChange objectClass(LDAP_MOD_ADD, "objectClass", "device");
    RawChange name(LDAP_MOD_ADD, "cn", dn.substr(3, dn.find(',') - 3));
    LDAPMod* attributes[] = {objectClass.get(), name.get(), nullptr};
    raw_await_change(session.get(), raw_send_add(session.get(), dn.c_str(), attributes));
    return dn;
}

/// One of many values, so that each modify changes something.
std::string descriptionOf(unsigned long number) { return "changed " + std::to_string(number); }

void finish(LDAPOperation& request)
{
    request.send();
    while (request.wait(30)) {
    }
    require(request.result().resultCode() == 0, "answer to a change");
}

class RawChanges {
public:
    explicit RawChanges(Options const& options)
        : m_session(options.uri(), reader()), m_modified(addedBy(m_session))
    {
    }

    void modify(unsigned long count)
    {
        for (; count > 0; --count) {
            RawChange description(LDAP_MOD_REPLACE, "description", descriptionOf(count));
            LDAPMod* changes[] = {description.get(), nullptr};
            raw_await_change(m_session.get(),
                             raw_send_modify(m_session.get(), m_modified.c_str(), changes));
        }
    }
    void add(unsigned long count)
    {
        for (; count > 0; --count) {
            m_added.push_back(addedBy(m_session));
        }
    }
    void remove(unsigned long count)
    {
        for (; count > 0; --count) {
            raw_await_change(m_session.get(),
                             raw_send_delete(m_session.get(), m_added.back().c_str()));
            m_added.pop_back();
        }
    }

private:
    RawSession m_session;
    std::string m_modified;
    std::vector<std::string> m_added;
};

class LibraryChanges {
public:
    explicit LibraryChanges(Options const& options)
        : m_raw(options.uri(), reader()),
          m_connection(openBound(serverAt(options.host, options.port), reader())),
          m_modified(addedBy(m_raw))
    {
    }

    void modify(unsigned long count)
    {
        for (; count > 0; --count) {
            LDAPModify request(m_connection, m_modified);
            request.replace("description", {descriptionOf(count)});
            finish(request);
        }
    }
    void add(unsigned long count)
    {
        for (; count > 0; --count) {
            m_added.push_back(addedBy(m_raw));
        }
    }
    void remove(unsigned long count)
    {
        for (; count > 0; --count) {
            LDAPDelete request(m_connection, m_added.back());
            finish(request);
            m_added.pop_back();
        }
    }

private:
    RawSession m_raw; ///< adds what is deleted
    LDAPConnection m_connection;
    std::string m_modified;
    std::vector<std::string> m_added;
};

template <typename Changes> Contender modifying(char const* name, Changes& changes)
{
    return {name, [&](unsigned long count) { changes.modify(count); }};
}

template <typename Changes> Contender deleting(char const* name, Changes& changes)
{
    return {name, [&](unsigned long count) { changes.remove(count); },
            [&](unsigned long count) { changes.add(count); }};
}

} // namespace

void changes(Options const& options, Rounds const& rounds)
{
    RawChanges raw(options);
    RawChanges again(options);
    LibraryChanges library(options);
    rounds.compare("modify", {modifying("raw", raw), modifying("raw again", again),
                              modifying("library", library)});
    rounds.compare("delete", {deleting("raw", raw), deleting("raw again", again),
                              deleting("library", library)});
}

} // namespace SolvaneBench
