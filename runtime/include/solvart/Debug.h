/// @file
/// Debug output, switched by one mask for the whole process.
#ifndef SOLVART_DEBUG_H
#define SOLVART_DEBUG_H

#include <solvart/Export.h>

/// Which debug lines are wanted; a line is written when all bits of its level are set. Starts at
/// the value of the environment variable SOLVANE_DEBUG_MASK (C notation, as 0x80008), and at 0
/// where that is not set or no number of 32 bits. Assign it before other threads run.
extern SOLVART_EXPORT unsigned int basepp_dbg_mask_;

namespace basepp {
namespace dbg {

/// Writes one line, `file:line function: text`, to standard error; the caller tests the mask.
///
/// The line goes out in one system call, its control characters escaped. Never throws and keeps
/// `errno`.
///
/// @param file      source unit; null stands for none
/// @param line      source line
/// @param function  operation; null stands for none
/// @param flags     0
/// @param format    printf's notation
SOLVART_EXPORT void debug(char const* file, int line, char const* function, int flags,
                          char const* format, ...) __attribute__((format(printf, 5, 6)));

} // namespace dbg
} // namespace basepp

#endif
