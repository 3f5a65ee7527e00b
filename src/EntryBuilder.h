// One received entry, from its parts.
#ifndef SOLVANE_LDAP_SRC_ENTRY_BUILDER_H
#define SOLVANE_LDAP_SRC_ENTRY_BUILDER_H

#include <solvane/ldap/LDAPResult.h>

#include "PackedAttributes.h"

#include <cstddef>
#include <list>

struct berval;

namespace Solvane {

/// Builds one entry in the node in which it stays.
///
/// Of an answer of one entry, as a lookup has, the attributes are read at once and put where they
/// stay. Those of a big one are packed until somebody asks for them: their handles, bodies and lists
/// would be six times the answer's size. Large values are never packed.
class EntryBuilder : public NonCopyable {
public:
    /// @param packs  whether the attributes wait in a block until somebody asks for them
    EntryBuilder(char const* dn, bool packs);

    /// @param description  as the server sent it; taken apart when it is asked for
    /// @param values       null-terminated, or null for none; stays the caller's
    void append(char const* description, berval** values);
    /// Appends the entry to others and leaves the builder without one.
    void moveTo(std::list<LDAPSearchResultEntry>& entries);

    /// Appends the attributes of a block to a list.
    static void unpack(char const* block, std::list<LDAPAttribute>& attributes);

private:
    static LDAPAttributeImpl& appendTo(std::list<LDAPAttribute>& attributes,
                                       char const* description, std::size_t length);
    void stopPacking();

    std::list<LDAPSearchResultEntry> m_entry; // this one
    AttributePacker m_packer;
    bool m_isPacking;
};

} // namespace Solvane

#endif
