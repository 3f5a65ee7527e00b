// BER values by liblber: those of extended operations and of controls, and search entries.
#ifndef SOLVANE_LDAP_SRC_BER_CODING_H
#define SOLVANE_LDAP_SRC_BER_CODING_H

#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <new>
#include <string>
#include <utility>

#include <string.h>

namespace Solvane {

/// Overwrites a text and empties it.
inline void wipe(std::string& text)
{
    explicit_bzero(&text[0], text.size());
    text.clear();
}

/// Encodes one value, and wipes its own bytes at its end.
class BerEncoder : public NonCopyable {
public:
    BerEncoder() : m_element(ber_alloc_t(LBER_USE_DER)) { require(m_element != nullptr); }
    ~BerEncoder()
    {
        berval bytes{};
        if (ber_flatten2(m_element, &bytes, 0) == 0) {
            explicit_bzero(bytes.bv_val, bytes.bv_len);
        }
        ber_free(m_element, 1);
    }

    /// Appends what `ber_printf` makes of the format and the arguments.
    template <typename... Arguments> BerEncoder& put(char const* format, Arguments... arguments)
    {
        require(ber_printf(m_element, format, arguments...) != -1);
        return *this;
    }
    /// Appends an octet string with this tag.
    BerEncoder& octets(ber_tag_t tag, std::string const& bytes)
    {
        return put("to", tag, bytes.data(), bytes.size());
    }

    /// For functions of OpenLDAP that append to it.
    BerElement* element() { return m_element; }

    std::string bytes() const
    {
        berval bytes{};
        require(ber_flatten2(m_element, &bytes, 0) == 0);
        return std::string(bytes.bv_val, bytes.bv_len);
    }

private:
    static void require(bool holds)
    {
        if (!holds) {
            throw std::bad_alloc();
        }
    }

    BerElement* m_element;
};

/// Decodes the elements of a value one after the other, without copying them. Throws the exception of
/// its site for anything malformed. The bytes must outlive it, unchanged.
class BerDecoder : public NonCopyable {
public:
    BerDecoder(berval bytes, ThrowSite const& site, char const* what)
        : m_element(ber_alloc_t(0)), m_site(site), m_what(what)
    {
        if (m_element == nullptr) {
            throw std::bad_alloc();
        }
        ber_init2(m_element, &bytes, 0);
    }
    ~BerDecoder() { ber_free(m_element, 0); } // the bytes are the caller's

    bool isAtEnd()
    {
        ber_len_t left = 0;
        ber_get_option(m_element, LBER_OPT_BER_REMAINING_BYTES, &left);
        return left == 0;
    }
    /// The tag of the next element; LBER_DEFAULT at the end and for a malformed one.
    ber_tag_t nextTag()
    {
        ber_len_t length = 0;
        return isAtEnd() ? LBER_DEFAULT : ber_peek_tag(m_element, &length);
    }
    /// The content of the next element, which must have this tag.
    berval content(ber_tag_t tag)
    {
        berval found{};
        require(nextTag() == tag && ber_skip_element(m_element, &found) == tag);
        return found;
    }
    std::string octets(ber_tag_t tag = LBER_OCTETSTRING)
    {
        berval const found = content(tag);
        return std::string(found.bv_val, found.bv_len);
    }
    /// An integer or an enumeration.
    int integer(ber_tag_t tag)
    {
        ber_len_t length = 0;
        ber_int_t number = 0;
        require(!isAtEnd() && ber_peek_tag(m_element, &length) == tag && length != 0 &&
                ber_get_int(m_element, &number) == tag);
        return number;
    }
    /// An integer or an enumeration that is at least 0.
    int count(ber_tag_t tag)
    {
        int const number = integer(tag);
        require(number >= 0);
        return number;
    }
    /// There must be no more elements.
    void end() { require(isAtEnd()); }

    void require(bool holds) const
    {
        if (!holds) {
            throw fault(m_site, std::string("Malformed ") + m_what);
        }
    }

private:
    BerElement* m_element;
    ThrowSite const& m_site;
    char const* m_what;
};

/// Decodes the content of a search entry (RFC 4511 section 4.5.2), or throws the exception of the site.
inline LDAPSearchResultEntry entryOf(berval content, ThrowSite const& site, char const* what)
{
    BerDecoder fields(content, site, what);
    LDAPSearchResultEntry entry(fields.octets());
    BerDecoder attributes(fields.content(LBER_SEQUENCE), site, what);
    fields.end();
    while (!attributes.isAtEnd()) {
        BerDecoder parts(attributes.content(LBER_SEQUENCE), site, what);
        LDAPAttribute attribute{LDAPAttributeType(parts.octets())};
        BerDecoder values(parts.content(LBER_SET), site, what);
        parts.end();
        while (!values.isAtEnd()) {
            attribute.value(values.octets());
        }
        entry.appendAttribute(std::move(attribute));
    }
    return entry;
}

} // namespace Solvane

#endif
