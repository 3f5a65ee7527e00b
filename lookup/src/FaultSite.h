// The source locations that the engine's own exceptions report.
#ifndef SOLVANE_LOOKUP_FAULT_SITE_H
#define SOLVANE_LOOKUP_FAULT_SITE_H

#include <solvane/ldap/LDAPException.h>

#include <string>

namespace Solvane::Lookup {

struct FaultSite {
    char const* unit;
    unsigned int line; ///< as reported; stays what it is when the source moves
    int code;
};

namespace at {
// clang-format off
constexpr FaultSite settingRefused { "LDAPLookup.cpp", 20, 2 };
// clang-format on
} // namespace at

inline LDAPException faultAt(FaultSite const& site, std::string const& text)
{
    constexpr int general = 0;
    LDAPException fault("LDAPException", site.code, site.unit, site.line, general);
    fault.stringParameter(text);
    return fault;
}

} // namespace Solvane::Lookup

#endif
