#ifndef SOLVART_DEBUG_H
#define SOLVART_DEBUG_H

extern unsigned int basepp_dbg_mask_;

namespace basepp {
namespace dbg {

void debug(char const* file, int line, char const* function, int flags, char const* format, ...);

} // namespace dbg
} // namespace basepp

#endif
