// The process's log, on standard error.
#include <solvart/Logger.h>

#include "Line.h"

#include <cstdarg>
#include <string>

namespace Solvane {

namespace {

char const partSeparator = '\x01';

/// The parts of a message behind its catalogue number, parted by blanks.
std::string readable(std::string message)
{
    std::string::size_type const numberEnd = message.find(partSeparator);
    if (numberEnd != std::string::npos) {
        message.erase(0, numberEnd + 1);
    }
    for (char& c : message) {
        if (c == partSeparator) {
            c = ' ';
        }
    }
    return message;
}

} // namespace

Logger& Logger::instance(bool /*reopen*/)
{
    static Logger logger;
    return logger;
}

void Logger::log(unsigned int /*category*/, int /*flags*/, char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    reportLine([&] {
        std::string line = "solvane: ";
        appendEscaped(line, readable(formatted(format, arguments)));
        return line;
    });
    va_end(arguments);
}

} // namespace Solvane
