// Completes and validates the settings of a lookup.
#include "LookupSettings.h"

#include "Failure.h"
#include "Template.h"

#include <solvane/ldap/LDAPException.h>

namespace Solvane::Tool {

std::unique_ptr<LDAPLookup> makeLookup(CommonOptions const& common, SettingOptions const& options,
                                       Secret& password)
{
    Draft draft = common.draft();
    options.applyTo(draft);
    requireBase(draft);
    auto const queryTemplate = templateOf(draft);
    LDAPLookup::Settings const settings = common.settings(draft, password);
    requireSound(queryTemplate);
    try {
        return std::make_unique<LDAPLookup>(settings);
    } catch (LDAPException const& fault) {
        throw Failure(Outcome::configuration, fault.stringParameter(), "correct the settings");
    }
}

} // namespace Solvane::Tool
