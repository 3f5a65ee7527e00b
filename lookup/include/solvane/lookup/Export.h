/// @file
/// Symbol visibility of the lookup engine.
#ifndef SOLVANE_LOOKUP_EXPORT_H
#define SOLVANE_LOOKUP_EXPORT_H

#include <solvane/session/Export.h>

#endif
