/// @file
/// Debug output, enabled by a process-wide mask.
#ifndef SOLVART_DEBUG_H
#define SOLVART_DEBUG_H

#include <solvart/Export.h>

/// The debug mask. A line is written if all bits of its level are set. Its initial value is that of the
/// environment variable SOLVANE_DEBUG_MASK (C notation, such as 0x80008), or 0 if the variable is not
/// set or not a 32-bit number. Assign it before other threads run.
extern SOLVART_EXPORT unsigned int basepp_dbg_mask_;

namespace basepp {
namespace dbg {

/// Writes one line, `file:line function: text`, to standard error; the caller checks the mask.
///
/// Writes the line with one system call, with control characters escaped. Never throws; preserves
/// `errno`.
///
/// @param file      source unit; null for none
/// @param line      source line
/// @param function  operation; null for none
/// @param flags     0
/// @param format    printf's notation
SOLVART_EXPORT void debug(char const* file, int line, char const* function, int flags,
                          char const* format, ...) __attribute__((format(printf, 5, 6)));

} // namespace dbg
} // namespace basepp

#endif
