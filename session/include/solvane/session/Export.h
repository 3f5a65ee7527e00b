/// @file
/// Symbol visibility of the lookup engine.
#ifndef SOLVANE_SESSION_EXPORT_H
#define SOLVANE_SESSION_EXPORT_H

/// Marks what the shared library offers to others; everything else stays hidden.
#define SOLVANE_LOOKUP_EXPORT __attribute__((visibility("default")))

#endif
