// Errors of socket(2) and connect(2).
#ifndef SOLVANE_SESSION_SRC_SOCKET_ERRORS_H
#define SOLVANE_SESSION_SRC_SOCKET_ERRORS_H

#include <cerrno>
#include <cstring>
#include <string>

namespace Solvane::Lookup {

/// Whether socket(2) failed because this process or system has run out of something.
inline bool isLack(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

/// An error in words.
inline std::string wordsOf(int error)
{
    return error == EMFILE ? "too many open files in this process" : std::strerror(error);
}

} // namespace Solvane::Lookup

#endif
