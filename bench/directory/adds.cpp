// Entries added below ou=new, one at a time and many in flight.
#include "rows.h"

#include "RawSession.h"

#include <deque>

#include <unistd.h>

namespace SolvaneBench {

using Solvane::LDAPAdd;
using Solvane::LDAPAttribute;
using Solvane::LDAPAttributeType;
using Solvane::LDAPConnection;

namespace {

/// Names that are unique among runs against the same directory.
std::string nextName()
{
    static unsigned long added = 0;
    return "b" + std::to_string(getpid()) + "-" + std::to_string(++added);
}

std::string dnOf(std::string const& name) { return "uid=" + name + ",ou=new,dc=corp,dc=test"; }

/// The attributes of an entry for the raw calls.
class RawAttributes {
public:
    explicit RawAttributes(std::string name) : m_name(std::move(name))
    {
        m_modifications = {LDAPMod{LDAP_MOD_ADD, m_class.data(), {m_classes}},
                           LDAPMod{LDAP_MOD_ADD, m_uid.data(), {m_values}},
                           LDAPMod{LDAP_MOD_ADD, m_cn.data(), {m_values}},
                           LDAPMod{LDAP_MOD_ADD, m_sn.data(), {m_values}},
                           LDAPMod{LDAP_MOD_ADD, m_mail.data(), {m_values}}};
        for (LDAPMod& modification : m_modifications) {
            m_array.push_back(&modification);
        }
        m_array.push_back(nullptr);
    }
    RawAttributes(RawAttributes const&) = delete;
    RawAttributes& operator=(RawAttributes const&) = delete;

    LDAPMod** array() { return m_array.data(); }

private:
    std::string m_class = "objectClass", m_person = "inetOrgPerson", m_uid = "uid", m_cn = "cn",
                m_sn = "sn", m_mail = "mail", m_name;
    char* m_classes[2] = {m_person.data(), nullptr};
    char* m_values[2] = {m_name.data(), nullptr};
    std::vector<LDAPMod> m_modifications;
    std::vector<LDAPMod*> m_array;
};

class RawAdds {
public:
    explicit RawAdds(Options const& options) : m_session(options.uri(), reader()) {}

    void run(unsigned long count, unsigned long window)
    {
        std::deque<int> underway;
        for (; count > 0; --count) {
            if (underway.size() == window) {
                raw_await_change(m_session.get(), underway.front());
                underway.pop_front();
            }
            std::string const name = nextName();
            underway.push_back(
                raw_send_add(m_session.get(), dnOf(name).c_str(), RawAttributes(name).array()));
        }
        for (int const id : underway) {
            raw_await_change(m_session.get(), id);
        }
    }

private:
    RawSession m_session;
};

std::list<LDAPAttribute> attributesOf(std::string const& name)
{
    std::list<LDAPAttribute> attributes;
    auto const put = [&](char const* type, std::string const& value) {
        LDAPAttribute attribute{LDAPAttributeType(type)};
        attribute.value(value);
        attributes.push_back(attribute);
    };
    put("objectClass", "inetOrgPerson");
    for (char const* type : {"uid", "cn", "sn", "mail"}) {
        put(type, name);
    }
    return attributes;
}

class LibraryAdds {
public:
    explicit LibraryAdds(Options const& options)
        : m_connection(openBound(serverAt(options.host, options.port), reader()))
    {
    }

    void run(unsigned long count, unsigned long window)
    {
        std::deque<LDAPAdd> underway;
        for (; count > 0; --count) {
            if (underway.size() == window) {
                finish(underway.front());
                underway.pop_front();
            }
            std::string const name = nextName();
            std::string dn = dnOf(name);
            LDAPAdd& add = underway.emplace_back(m_connection, dn);
            add.attributes(attributesOf(name));
            add.send();
        }
        for (LDAPAdd& add : underway) {
            finish(add);
        }
    }

private:
    static void finish(LDAPAdd& add)
    {
        while (add.wait(30)) {
        }
        require(add.result().resultCode() == 0, "answer to an add");
    }

    LDAPConnection m_connection;
};

} // namespace

void adds(Options const& options, Rounds const& rounds)
{
    RawAdds raw(options);
    RawAdds again(options);
    LibraryAdds library(options);
    rounds.compare(
        "add",
        {{"raw", [&](unsigned long count) { raw.run(count, 1); }},
         {"raw again", [&](unsigned long count) { again.run(count, 1); }},
         {"library", [&](unsigned long count) { library.run(count, 1); }},
         {"raw, 64 in flight", [&](unsigned long count) { raw.run(count, 64); }},
         {"library, 64 in flight", [&](unsigned long count) { library.run(count, 64); }}},
        0, 256);
}

} // namespace SolvaneBench
