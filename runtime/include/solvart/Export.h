/// @file
/// Symbol visibility of the runtime library.
#ifndef SOLVART_EXPORT_H
#define SOLVART_EXPORT_H

/// Marks what the runtime exports.
#define SOLVART_EXPORT __attribute__((visibility("default")))

#endif
