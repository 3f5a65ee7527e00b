// The arguments of OpenLDAP's functions for a change record, and the response.
#include "Change.h"

#include "OpenLDAP.h"
#include "Text.h"

#include <solvane/ldap/impl/OpenLDAPOwners.h>
#include <solvane/session/ResultCodes.h>

#include <fmt/format.h>

#include <list>
#include <map>
#include <vector>

#include <strings.h>

namespace Solvane::Tool {

namespace {

using Record = LDAPLdifRecord;

berval bytesOf(std::string const& bytes) { return {bytes.size(), const_cast<char*>(bytes.data())}; }

/// Refers to the record, which must outlive it, unchanged.
class Modifications {
public:
    Modifications() = default;
    Modifications(Modifications const&) = delete;
    Modifications& operator=(Modifications const&) = delete;

    void add(int operation, std::string const& attribute)
    {
        m_all.emplace_back();
        m_all.back().modification.mod_op = operation | LDAP_MOD_BVALUES;
        m_all.back().modification.mod_type = const_cast<char*>(attribute.c_str());
        m_current = &m_all.back();
    }
    void addValue(std::string const& value) { m_current->values.push_back(bytesOf(value)); }
    /// Adds a value, with those that were added under the same name.
    void addValue(std::string const& attribute, std::string const& value)
    {
        Modification*& known = m_added[attribute.c_str()];
        if (known == nullptr) {
            add(LDAP_MOD_ADD, attribute);
            known = m_current;
        }
        known->values.push_back(bytesOf(value));
    }
    /// Null-terminated.
    LDAPMod** get()
    {
        for (Modification& each : m_all) {
            for (berval& value : each.values) {
                each.pointers.push_back(&value);
            }
            each.pointers.push_back(nullptr);
            each.modification.mod_bvalues = each.values.empty() ? nullptr : each.pointers.data();
            m_pointers.push_back(&each.modification);
        }
        m_pointers.push_back(nullptr);
        return m_pointers.data();
    }

private:
    struct Modification {
        LDAPMod modification{};
        std::vector<berval> values;
        std::vector<berval*> pointers;
    };
    struct IgnoringCase {
        bool operator()(char const* left, char const* right) const
        {
            return strcasecmp(left, right) < 0;
        }
    };
    std::list<Modification> m_all;
    Modification* m_current = nullptr; ///< receives values
    std::map<char const*, Modification*, IgnoringCase> m_added;
    std::vector<LDAPMod*> m_pointers;
};

/// Refers to both lists, which must outlive it, unchanged.
class Controls {
public:
    Controls(std::vector<Record::Control> const& controls,
             std::list<LDAPOperation::Control> const& more)
    {
        for (Record::Control const& each : controls) {
            add(each.oid, each.isCritical, each.value ? &*each.value : nullptr);
        }
        for (LDAPOperation::Control const& each : more) {
            add(each.oid(), each.isCritical(), each.hasValue() ? &each.value() : nullptr);
        }
        for (LDAPControl& each : m_controls) {
            m_pointers.push_back(&each);
        }
        m_pointers.push_back(nullptr);
    }
    Controls(Controls const&) = delete;
    Controls& operator=(Controls const&) = delete;

    LDAPControl** get() { return m_controls.empty() ? nullptr : m_pointers.data(); }

private:
    void add(std::string const& oid, bool isCritical, std::string const* value)
    {
        m_controls.push_back({const_cast<char*>(oid.c_str()),
                              value != nullptr ? bytesOf(*value) : berval{0, nullptr},
                              static_cast<char>(isCritical ? 1 : 0)});
    }

    std::vector<LDAPControl> m_controls;
    std::vector<LDAPControl*> m_pointers;
};

int sendAdd(LDAP* handle, Record const& record, LDAPControl** controls, int& id)
{
    Modifications attributes;
    for (Record::Attribute const& each : record.attributes) {
        attributes.addValue(each.description, each.value);
    }
    return ldap_add_ext(handle, record.dn.c_str(), attributes.get(), controls, nullptr, &id);
}

int sendModify(LDAP* handle, Record const& record, LDAPControl** controls, int& id)
{
    constexpr int operations[] = {LDAP_MOD_ADD, LDAP_MOD_DELETE, LDAP_MOD_REPLACE,
                                  LDAP_MOD_INCREMENT};
    Modifications changes;
    for (Record::Change const& change : record.changes) {
        changes.add(operations[static_cast<std::size_t>(change.operation)], change.attribute);
        for (std::string const& value : change.values) {
            changes.addValue(value);
        }
    }
    return ldap_modify_ext(handle, record.dn.c_str(), changes.get(), controls, nullptr, &id);
}

int send(LDAP* handle, Record const& record, LDAPControl** controls, int& id)
{
    switch (record.type) {
    case Record::Type::Content:
    case Record::Type::Add:
        return sendAdd(handle, record, controls, id);
    case Record::Type::Modify:
        return sendModify(handle, record, controls, id);
    case Record::Type::Delete:
        return ldap_delete_ext(handle, record.dn.c_str(), controls, nullptr, &id);
    case Record::Type::Rename:
        break;
    }
    return ldap_rename(handle, record.dn.c_str(), record.newRdn.c_str(),
                       record.newSuperior ? record.newSuperior->c_str() : nullptr,
                       record.deletesOldRdn ? 1 : 0, controls, nullptr, &id);
}

int responseTo(Record const& record)
{
    switch (record.type) {
    case Record::Type::Content:
    case Record::Type::Add:
        return LDAP_RES_ADD;
    case Record::Type::Modify:
        return LDAP_RES_MODIFY;
    case Record::Type::Delete:
        return LDAP_RES_DELETE;
    case Record::Type::Rename:
        break;
    }
    return LDAP_RES_RENAME;
}

void releaseControls(LDAPControl** controls) { ldap_controls_free(controls); }

std::list<LDAPOperation::Control> controlsIn(Lookup::Session const& session,
                                             LDAPMessageBuffer const& message)
{
    OpenLDAPOwner<LDAPControl*, releaseControls> parsed;
    std::list<LDAPOperation::Control> controls;
    if (ldap_parse_result(session.handle(), message.get(), nullptr, nullptr, nullptr, nullptr,
                          parsed.address(), 0) != LDAP_SUCCESS) {
        return controls;
    }
    for (LDAPControl** each = parsed.get(); each != nullptr && *each != nullptr; ++each) {
        berval const& value = (*each)->ldctl_value;
        controls.emplace_back((*each)->ldctl_oid, (*each)->ldctl_iscritical != 0,
                              value.bv_val != nullptr ? std::string(value.bv_val, value.bv_len)
                                                      : std::string());
    }
    return controls;
}

/// Whether OpenLDAP refused the request before it wrote any of it.
bool isUnsent(int code) { return code == LDAP_ENCODING_ERROR || code == LDAP_PARAM_ERROR; }

} // namespace

std::string wordsFor(ResultMessage const& result)
{
    if (result.code == LDAP_SUCCESS) {
        return {};
    }
    std::string words = ldap_err2string(result.code);
    if (!result.text.empty() && result.text != words) {
        words += ": " + result.text;
    }
    if (!result.matched.empty()) {
        words += fmt::format(", matched DN '{}'", result.matched);
    }
    return words + pointersTo(result.referrals);
}

ChangeResult sendChange(Lookup::Session& session, Record const& record,
                        std::list<LDAPOperation::Control> const& more,
                        LDAPLookup::Settings const& settings)
{
    if (hasNul(record.newRdn) || hasNul(record.newSuperior.value_or(""))) { // would be cut there
        return {ChangeResult::Status::refused, LDAP_INVALID_DN_SYNTAX, "invalid DN", {}};
    }
    Controls controls(record.controls, more);
    LDAPMessageBuffer message;
    ResultMessage result;
    Lookup::Verdict const verdict = request(
        session, [&](LDAP* handle, int& id) { return send(handle, record, controls.get(), id); },
        responseTo(record), settings, message, result);
    ChangeResult done;
    if (!verdict.isGood()) {
        done.status =
            isUnsent(verdict.code) ? ChangeResult::Status::refused : ChangeResult::Status::unknown;
        done.code = verdict.code;
        done.text = verdict.text;
        return done;
    }
    done.code = result.code;
    done.status =
        result.code == LDAP_SUCCESS ? ChangeResult::Status::applied : ChangeResult::Status::refused;
    done.text = wordsFor(result);
    done.controls = controlsIn(session, message);
    return done;
}

} // namespace Solvane::Tool
