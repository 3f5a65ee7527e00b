// Reads an entry in one pass.
#include <solvane/session/EntryReader.h>

#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "BerReader.h"
#include "OpenLDAP.h"

#include <string>
#include <vector>

namespace Solvane::Lookup {

namespace {

/// The values of one attribute as an array for LDAPAttribute; reused to save allocations.
class Values {
public:
    /// Reads the next set of values. False if it is malformed.
    bool takeFrom(BerReader& reader)
    {
        std::string_view set;
        if (!reader.take(set)) {
            return false;
        }
        m_values.clear();
        std::string_view value;
        for (BerReader inside(set); !inside.isAtEnd();) {
            if (!inside.take(value)) {
                return false;
            }
            m_values.push_back({value.size(), const_cast<char*>(value.data())});
        }
        return true;
    }

    /// Ends with a null pointer.
    berval** pointers()
    {
        m_pointers.clear();
        m_pointers.reserve(m_values.size() + 1);
        for (berval& value : m_values) {
            m_pointers.push_back(&value);
        }
        m_pointers.push_back(nullptr);
        return m_pointers.data();
    }

private:
    std::vector<berval> m_values;
    std::vector<berval*> m_pointers;
};

/// @param attributes  one after the other
bool append(std::string_view dn, std::string_view attributes, std::list<LDAPSearchResultEntry>& to)
{
    std::list<LDAPSearchResultEntry> read; // built in its final list node
    LDAPSearchResultEntry& entry = read.emplace_back(std::string(dn));
    Values values;
    for (BerReader reader(attributes); !reader.isAtEnd();) {
        std::string_view description;
        if (!reader.enter() || !reader.take(description) || !values.takeFrom(reader)) {
            return false;
        }
        entry.appendAttribute(
            LDAPAttribute(LDAPAttributeType(std::string(description)), values.pointers()));
    }
    to.splice(to.end(), read);
    return true;
}

} // namespace

bool readEntry(std::string_view content, std::list<LDAPSearchResultEntry>& to)
{
    BerReader reader(content);
    std::string_view dn;
    std::string_view attributes;
    return reader.take(dn) && reader.take(attributes) && append(dn, attributes, to);
}

bool readEntry(LDAP* session, LDAPMessage* message, std::list<LDAPSearchResultEntry>& to)
{
    LDAPBerElementBuffer position;
    berval dn = {0, nullptr};
    if (ldap_get_dn_ber(session, message, position.address(), &dn) != LDAP_SUCCESS) {
        return false;
    }
    ber_len_t length = 0;
    berval first = {0, nullptr};
    ber_get_option(position.get(), LBER_OPT_BER_REMAINING_BYTES, &length);
    if (length != 0 && ber_skip_raw(position.get(), &first) == LBER_DEFAULT) {
        return false;
    }
    return append({dn.bv_val, dn.bv_len}, {first.bv_val, length}, to);
}

} // namespace Solvane::Lookup
