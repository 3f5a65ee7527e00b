// What reading and writing LDIF share.
#ifndef SOLVANE_LDIF_TEXT_H
#define SOLVANE_LDIF_TEXT_H

#include "OpenLDAP.h"
#include "ValueText.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#if __has_include(<ldif.h>)
#include <ldif.h>
#else // OpenLDAP 2.4 exports these functions, and installs no header that declares them
extern "C" char* ldif_put_wrap(int form, char const* name, char const* value, ber_len_t length,
                               ber_len_t width);
extern "C" std::FILE* ldif_open_url(char const* url);
#define LDIF_PUT_VALUE 1
#endif

namespace Solvane {

/// Whether the text has only characters of attribute descriptions, and those that some servers allow: "_",
/// and in options "=", as in "member;range=0-1499".
inline bool isName(std::string_view text)
{
    auto const options = text.find(';');
    return !text.empty() && text.find('=') >= options &&
           std::all_of(text.begin(), text.end(), [](char character) {
               return isAlphanumeric(character) ||
                      std::string_view("-.;_=").find(character) != std::string_view::npos;
           });
}

/// Whether a line with this name means something else than a value of an attribute.
inline bool isReserved(std::string_view name)
{
    return isSame(name, "dn") || isSame(name, "changetype") || isSame(name, "control");
}

/// Whether the text is a numeric OID, which names a control.
inline bool isOid(std::string_view text) { return isTypeName(text) && text.front() <= '9'; }

} // namespace Solvane

#endif
