// What the commands that look addresses up have in common: their settings, and the engine.
#ifndef SOLVANE_TOOL_LOOKUP_SETTINGS_H
#define SOLVANE_TOOL_LOOKUP_SETTINGS_H

#include "Options.h"
#include "SettingOptions.h"

#include <solvane/lookup/LDAPLookup.h>

#include <memory>

namespace Solvane::Tool {

/// An engine with the settings of the file, the common options and the command's own.
/// @param password  receives the password of the bind, which the engine copies
/// @throws Failure  "usage": no server, base or template, or what `CommonOptions::settings` throws;
///                  "badInput": the template is malformed; "configuration": unusable settings
std::unique_ptr<LDAPLookup> makeLookup(CommonOptions const& common, SettingOptions const& options,
                                       Secret& password);

} // namespace Solvane::Tool

#endif
