/// @file
/// Scope guards for memory that OpenLDAP hands out and wants back.
///
/// Each holds one pointer. A caller passes its address to the OpenLDAP call that fills it; the
/// owner gives the object back when it goes, on every path. Not copyable; `free()` is idempotent.
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

/// What all owners share: a pointer, null when there is nothing to give back.
template <typename T, void (*release)(T*)> class OpenLDAPOwner {
public:
    OpenLDAPOwner() = default;
    OpenLDAPOwner(OpenLDAPOwner const&) = delete;
    OpenLDAPOwner& operator=(OpenLDAPOwner const&) = delete;
    ~OpenLDAPOwner() { free(); }

    /// Gives the object back now; the owner may be filled again.
    void free()
    {
        if (m_pointer != nullptr) {
            release(m_pointer);
            m_pointer = nullptr;
        }
    }

    /// What is held; it stays the owner's.
    T* get() const { return m_pointer; }
    /// Where the OpenLDAP call is to write. Free the owner first if it holds something.
    T** address() { return &m_pointer; }

private:
    T* m_pointer = nullptr;
};

/// A chain of result messages, given back with `ldap_msgfree`.
class LDAPMessageBuffer : public OpenLDAPOwner<LDAPMessage, releaseMessages> {};

/// A string of OpenLDAP's, given back with `ldap_memfree`.
class LDAPCharBuffer : public OpenLDAPOwner<char, releaseChars> {};

/// An array of strings, given back with `ldap_value_free`.
class SOLVANE_LDAP_EXPORT LDAPValueBuffer : public OpenLDAPOwner<char*, releaseValues> {
public:
    /// Appends each string, up to its first zero byte, to `out`; the array stays owned.
    void asList(std::list<std::string>& out) const;
};

/// The position in an entry's attributes, given back with `ber_free` and 0, as the bytes belong to
/// the message.
class LDAPBerElementBuffer : public OpenLDAPOwner<BerElement, releaseElement> {};

/// An array of values, given back with `ldap_value_free_len`.
class SOLVANE_LDAP_EXPORT LDAPBerValBuffer : public OpenLDAPOwner<berval*, releaseBerValues> {
public:
    /// Holds nothing yet.
    /// @param separator  what `asBuffer` puts between values; may be empty
    LDAPBerValBuffer(std::string separator);
    ~LDAPBerValBuffer() { free(); } // before the separator goes

    /// Appends all values and one zero byte to `out`; nothing where no array is held. The
    /// separator, up to its first zero byte, comes before each value that finds `out` not empty.
    void asBuffer(Buffer& out) const;

private:
    std::string m_separator;
};

/// One value made from a string, given back with `ber_bvfree`.
class SOLVANE_LDAP_EXPORT LDAPBerValItemBuffer : public OpenLDAPOwner<berval, releaseBerValue> {
public:
    /// Holds `value` up to its first zero byte; an empty string gives length 0 and a null pointer.
    /// @throws std::bad_alloc  no memory
    LDAPBerValItemBuffer(std::string value);
};

} // namespace Solvane

#endif
