/// @file
/// The operator's log.
#ifndef SOLVART_LOGGER_H
#define SOLVART_LOGGER_H

#include <solvart/Export.h>

namespace Solvane {

/// Writes messages for the operator. The stand-in writes each as a line to standard error.
class SOLVART_EXPORT Logger {
public:
    /// The process's logger.
    ///
    /// @param reopen  true: reopen the log, if the runtime writes a file; the stand-in does not
    static Logger& instance(bool reopen);

    /// Writes one message. Never throws; preserves `errno`. Thread-safe.
    ///
    /// @param category  bits that route the message; ignored by the stand-in
    /// @param flags     0
    /// @param format    printf's notation; the parts of a message are separated by the byte 0x01;
    ///                  the first is a number of the message catalogue, which the stand-in omits
    void log(unsigned int category, int flags, char const* format, ...)
        __attribute__((format(printf, 4, 5)));

private:
    Logger() = default;
};

} // namespace Solvane

#endif
