// What the commands that look addresses up have in common: their template, their settings, the engine.
#ifndef SOLVANE_TOOL_LOOKUP_SETTINGS_H
#define SOLVANE_TOOL_LOOKUP_SETTINGS_H

#include "Options.h"
#include "Outcome.h"
#include "SettingsTable.h"

#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/QueryTemplate.h>

#include <memory>

namespace Solvane::Tool {

/// Whether the settings have a template.
bool hasTemplate(Draft const& draft);

/// The template, not validated.
/// @throws Failure  "usage": there is none
Lookup::QueryTemplate templateOf(Draft const& draft);

/// Validates the template.
/// @throws Failure  "badInput": the first error; no lookup can succeed with it
void requireSound(Lookup::QueryTemplate const& queryTemplate);

/// Prints the specifiers of other programs in the template.
void tellDoubts(Lookup::QueryTemplate const& queryTemplate, Diagnostics const& diagnostics);
/// Prints why possibly no address is found: the server's schema lacks an attribute, or the base is
/// an alias. Asks the first server that can be reached; prints nothing if there is none.
/// @param settings  those of the lookups, with their servers and password
void tellDoubts(Draft const& draft, LDAPLookup::Settings const& settings,
                Diagnostics const& diagnostics);

/// The attributes of the template's filter, if it makes one, and of the lists of attributes; each
/// once.
std::vector<std::string> attributesOf(Draft const& draft);

/// The settings of the file, the common options and the command's own.
/// @throws Failure  "usage": there is no search base; "configuration": a file cannot be used
Draft lookupDraft(CommonOptions const& common, SettingOptions const& options);

/// An engine with these settings.
/// @param password  receives the password of the bind, which the engine copies
/// @throws Failure  "usage": no server or template, or what `CommonOptions::settings` throws;
///                  "badInput": the template is malformed; "configuration": unusable settings
std::unique_ptr<LDAPLookup> makeLookup(CommonOptions const& common, Draft const& draft,
                                       Secret& password);
/// The same with settings that `CommonOptions::settings` has made.
std::unique_ptr<LDAPLookup> makeLookup(Draft const& draft, LDAPLookup::Settings const& settings);

} // namespace Solvane::Tool

#endif
