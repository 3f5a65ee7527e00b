/// @file
/// The process's log.
#ifndef SOLVART_LOGGER_H
#define SOLVART_LOGGER_H

#include <solvart/Export.h>

namespace Solvane {

/// Where messages for the operator go. The stand-in writes each as one line to standard error.
class SOLVART_EXPORT Logger {
public:
    /// The process's logger.
    ///
    /// @param reopen  true: begin a new log where the runtime keeps one in a file; the stand-in
    ///                has none
    static Logger& instance(bool reopen);

    /// Writes one message. Never throws and keeps `errno`; several threads may call it at once.
    ///
    /// @param category  bits that route the message; the stand-in sends all to one place
    /// @param flags     0
    /// @param format    printf's notation; the parts of a message are parted by the byte 0x01, and
    ///                  the first is the number of the message's text in the catalogue, which the
    ///                  stand-in leaves out
    void log(unsigned int category, int flags, char const* format, ...)
        __attribute__((format(printf, 4, 5)));

private:
    Logger() = default;
};

} // namespace Solvane

#endif
