// The template of the settings, and its validation.
#ifndef SOLVANE_TOOL_TEMPLATE_H
#define SOLVANE_TOOL_TEMPLATE_H

#include "Failure.h"
#include "SettingsTable.h"

#include <solvane/lookup/QueryTemplate.h>

namespace Solvane::Tool {

/// Whether the settings have a template.
bool hasTemplate(Draft const& draft);

/// The template, not validated.
/// @throws Failure  "usage": there is none
Lookup::QueryTemplate templateOf(Draft const& draft);

/// Validates the template.
/// @throws Failure  "badInput": the first error; no lookup can succeed with it
void requireSound(Lookup::QueryTemplate const& queryTemplate);

} // namespace Solvane::Tool

#endif
