/// @file
/// Owners of memory that OpenLDAP allocates.
///
/// Each owns one pointer. Pass its address to the OpenLDAP function that sets it; the destructor frees
/// the object. Not copyable; `free()` is idempotent.
#ifndef SOLVANE_LDAP_OPENLDAP_OWNERS_H
#define SOLVANE_LDAP_OPENLDAP_OWNERS_H

#include <solvane/ldap/Export.h>

#include <list>
#include <string>

/// @cond of OpenLDAP
struct berelement;
struct berval;
struct ldapmsg;
typedef struct berelement BerElement;
typedef struct ldapmsg LDAPMessage;
/// @endcond

namespace Solvane {

class Buffer;

/// @cond release calls of the owners below
SOLVANE_LDAP_EXPORT void releaseMessages(LDAPMessage* messages);
SOLVANE_LDAP_EXPORT void releaseChars(char* chars);
SOLVANE_LDAP_EXPORT void releaseValues(char** values);
SOLVANE_LDAP_EXPORT void releaseElement(BerElement* element);
SOLVANE_LDAP_EXPORT void releaseBerValues(berval** values);
SOLVANE_LDAP_EXPORT void releaseBerValue(berval* value);
/// @endcond

/// Base of the owners: a pointer, which may be null.
template <typename T, void (*release)(T*)> class OpenLDAPOwner {
public:
    OpenLDAPOwner() = default;
    OpenLDAPOwner(OpenLDAPOwner const&) = delete;
    OpenLDAPOwner& operator=(OpenLDAPOwner const&) = delete;
    ~OpenLDAPOwner() { free(); }

    /// Frees the object. The owner can then be used again.
    void free()
    {
        if (m_pointer != nullptr) {
            release(m_pointer);
            m_pointer = nullptr;
        }
    }

    /// The object, which the owner keeps.
    T* get() const { return m_pointer; }
    /// The address to pass to OpenLDAP. Call `free` first if the owner is not empty.
    T** address() { return &m_pointer; }

private:
    T* m_pointer = nullptr;
};

/// A chain of result messages, freed with `ldap_msgfree`.
class LDAPMessageBuffer : public OpenLDAPOwner<LDAPMessage, releaseMessages> {};

/// A string from OpenLDAP, freed with `ldap_memfree`.
class LDAPCharBuffer : public OpenLDAPOwner<char, releaseChars> {};

/// An array of strings, freed with `ldap_value_free`.
class SOLVANE_LDAP_EXPORT LDAPValueBuffer : public OpenLDAPOwner<char*, releaseValues> {
public:
    /// Appends each string, up to its first zero byte, to `out`; keeps the array.
    void asList(std::list<std::string>& out) const;
};

/// A position among an entry's attributes, freed with `ber_free` and 0, because the message owns the
/// bytes.
class LDAPBerElementBuffer : public OpenLDAPOwner<BerElement, releaseElement> {};

/// An array of values, freed with `ldap_value_free_len`.
class SOLVANE_LDAP_EXPORT LDAPBerValBuffer : public OpenLDAPOwner<berval*, releaseBerValues> {
public:
    /// An empty owner.
    /// @param separator  what `asBuffer` puts between values; may be empty
    LDAPBerValBuffer(std::string separator);
    ~LDAPBerValBuffer() { free(); } // before the separator goes

    /// Appends all values and one zero byte to `out`; nothing if the owner is empty. Inserts the
    /// separator, up to its first zero byte, before each value unless `out` is empty.
    void asBuffer(Buffer& out) const;

private:
    std::string m_separator;
};

/// One value made from a string, freed with `ber_bvfree`.
class SOLVANE_LDAP_EXPORT LDAPBerValItemBuffer : public OpenLDAPOwner<berval, releaseBerValue> {
public:
    /// Owns a copy of `value` up to its first zero byte; for an empty string, length 0 and a null
    /// pointer.
    /// @throws std::bad_alloc  no memory
    LDAPBerValItemBuffer(std::string value);
};

} // namespace Solvane

#endif
