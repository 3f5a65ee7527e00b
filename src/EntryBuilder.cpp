// One received entry: packed, and unpacked.
#include "EntryBuilder.h"

#include <solvane/ldap/impl/LDAPAttributeImpl.h>

#include <cstring>

namespace Solvane {

EntryBuilder::EntryBuilder(char const* dn, bool packs) : m_isPacking(packs)
{
    m_entry.emplace_back(std::string());
    if (dn != nullptr) {
        m_entry.back().m_entryName = dn;
    }
}

void EntryBuilder::append(char const* description, berval** values)
{
    if (m_isPacking) {
        if (m_packer.append(description, values)) {
            return;
        }
        stopPacking();
    }
    appendTo(m_entry.back().m_attributes.m_impl.body()->m_attributes, description,
             std::strlen(description))
        .value(values);
}

void EntryBuilder::moveTo(std::list<LDAPSearchResultEntry>& entries)
{
    if (m_isPacking && !m_packer.empty()) {
        m_entry.back().m_attributes.m_impl.body()->m_packed = m_packer.block();
    }
    entries.splice(entries.end(), m_entry);
}

void EntryBuilder::stopPacking()
{
    m_isPacking = false;
    unpack(m_packer.block().get(), m_entry.back().m_attributes.m_impl.body()->m_attributes);
}

void EntryBuilder::unpack(char const* block, std::list<LDAPAttribute>& attributes)
{
    AttributeUnpacker reader(block);
    for (std::uint32_t left = reader.number(); left > 0; --left) {
        std::uint32_t const length = reader.number();
        std::uint32_t values = reader.number();
        LDAPAttributeImpl& attribute = appendTo(attributes, reader.bytes(length), length);
        for (; values > 0; --values) {
            std::uint32_t const size = reader.number();
            attribute.m_values.emplace_back(reader.bytes(size), size, false);
        }
    }
}

LDAPAttributeImpl& EntryBuilder::appendTo(std::list<LDAPAttribute>& attributes,
                                          char const* description, std::size_t length)
{
    attributes.emplace_back();
    BodyReference<LDAPAttributeImpl>& attribute = attributes.back().m_impl;
    attribute.create();
    if (length == 0) {
        attribute.body()->type(LDAPAttributeType(std::string()));
    } else {
        attribute.body()->m_description.assign(description, length);
    }
    return *attribute.body();
}

} // namespace Solvane
