/// @file
/// Symbol visibility of the lookup engine.
#ifndef SOLVANE_SESSION_EXPORT_H
#define SOLVANE_SESSION_EXPORT_H

/// Exports a symbol of the shared library; all others are hidden.
#define SOLVANE_LOOKUP_EXPORT __attribute__((visibility("default")))

#endif
