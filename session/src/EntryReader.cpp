// Reads an entry in one pass.
#include <solvane/session/EntryReader.h>

#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "OpenLDAP.h"

#include <string>
#include <vector>

namespace Solvane::Lookup {

namespace {

void releaseArray(berval* array) { ber_memfree(array); } // its values are the message's bytes

/// The values of one attribute, without copies.
class ValueArray : public OpenLDAPOwner<berval, releaseArray> {};

std::string textOf(berval const& bytes)
{
    return bytes.bv_val == nullptr ? std::string() : std::string(bytes.bv_val, bytes.bv_len);
}

/// Points at each value, as attributes take them.
void pointAt(ValueArray const& values, std::vector<berval*>& pointers)
{
    pointers.clear();
    for (berval* value = values.get(); value != nullptr && value->bv_val != nullptr; ++value) {
        pointers.push_back(value);
    }
    pointers.push_back(nullptr);
}

} // namespace

bool readEntry(LDAP* session, LDAPMessage* message, std::list<LDAPSearchResultEntry>& to,
               std::size_t* bytes)
{
    LDAPBerElementBuffer position;
    berval dn = {0, nullptr};
    if (ldap_get_dn_ber(session, message, position.address(), &dn) != LDAP_SUCCESS) {
        return false;
    }
    if (bytes != nullptr) {
        ber_len_t size = 0;
        ber_get_option(position.get(), LBER_OPT_BER_TOTAL_BYTES, &size);
        *bytes = size;
    }
    std::list<LDAPSearchResultEntry> read; // built in the node in which it stays
    read.emplace_back(textOf(dn));
    std::vector<berval*> pointers;
    for (;;) {
        berval description = {0, nullptr};
        ValueArray values;
        if (ldap_get_attribute_ber(session, message, position.get(), &description,
                                   values.address()) != LDAP_SUCCESS) {
            return false;
        }
        if (description.bv_val == nullptr) {
            break;
        }
        pointAt(values, pointers);
        read.back().appendAttribute(
            LDAPAttribute(LDAPAttributeType(textOf(description)), pointers.data()));
    }
    to.splice(to.end(), read);
    return true;
}

} // namespace Solvane::Lookup
