// The template that the settings name, and what is wrong with it.
#ifndef SOLVANE_TOOL_TEMPLATE_H
#define SOLVANE_TOOL_TEMPLATE_H

#include "Failure.h"
#include "SettingsTable.h"

#include <solvane/lookup/QueryTemplate.h>

namespace Solvane::Tool {

/// Whether there is one.
bool hasTemplate(Draft const& draft);

/// The template, unchecked.
/// @throws Failure  "usage": there is none
Lookup::QueryTemplate templateOf(Draft const& draft);

/// Throws the first of its errors, if it has one: no lookup can succeed with it.
/// @throws Failure  "badInput"
void requireSound(Lookup::QueryTemplate const& queryTemplate);

} // namespace Solvane::Tool

#endif
