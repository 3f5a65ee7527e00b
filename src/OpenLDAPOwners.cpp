// Owners of OpenLDAP memory: freeing and conversions.
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "OpenLDAP.h"

#include <solvart/Buffer.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Solvane {

namespace {

template <typename T> T* allocated(std::size_t bytes)
{
    void* const memory = std::malloc(bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return static_cast<T*>(memory);
}

/// A value of length 0 without bytes. OpenLDAP uses the system's allocator, so ber_bvfree can free it.
berval* emptyValue()
{
    berval* const value = allocated<berval>(sizeof(berval));
    value->bv_len = 0;
    value->bv_val = nullptr;
    return value;
}

/// A value that owns a copy of the text up to its first zero byte.
berval* valueOf(std::string const& text)
{
    char* const copy = allocated<char>(text.size() + 1);
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    berval* const value = ber_str2bv(copy, 0, 0, nullptr);
    if (value == nullptr) {
        std::free(copy);
        throw std::bad_alloc();
    }
    return value; // NOLINT(clang-analyzer-unix.Malloc): it owns the copy
}

} // namespace

void releaseMessages(LDAPMessage* messages) { ldap_msgfree(messages); }
void releaseChars(char* chars) { ldap_memfree(chars); }
void releaseValues(char** values) { ldap_value_free(values); }
void releaseElement(BerElement* element) { ber_free(element, 0); }
void releaseBerValues(berval** values) { ldap_value_free_len(values); }
void releaseBerValue(berval* value) { ber_bvfree(value); }

void LDAPValueBuffer::asList(std::list<std::string>& out) const
{
    if (get() == nullptr) {
        return;
    }
    for (char** value = get(); *value != nullptr; ++value) {
        out.emplace_back(*value);
    }
}

LDAPBerValBuffer::LDAPBerValBuffer(std::string separator) : m_separator(std::move(separator)) {}

void LDAPBerValBuffer::asBuffer(Buffer& out) const
{
    if (get() == nullptr) {
        return;
    }
    char const* const separator = m_separator.c_str();
    unsigned int const separatorLength = static_cast<unsigned int>(std::strlen(separator));
    for (berval** value = get(); *value != nullptr; ++value) {
        if (separatorLength != 0 && out.length() != 0) {
            out.append(reinterpret_cast<unsigned char const*>(separator), separatorLength);
        }
        out.append(reinterpret_cast<unsigned char const*>((*value)->bv_val),
                   static_cast<unsigned int>((*value)->bv_len));
    }
    out.append(static_cast<unsigned char>(0));
}

// cppcheck-suppress passedByValue ; the signature is part of the interface
// NOLINTNEXTLINE(performance-unnecessary-value-param): and here
LDAPBerValItemBuffer::LDAPBerValItemBuffer(std::string value)
{
    *address() = value.empty() ? emptyValue() : valueOf(value);
}

} // namespace Solvane
