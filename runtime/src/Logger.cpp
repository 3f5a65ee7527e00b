// The operator's log, on standard error.
#include <solvart/Logger.h>

#include "Line.h"

#include <algorithm>
#include <cstdarg>
#include <string>

namespace Solvane {

namespace {

char const partSeparator = '\x01';

/// The parts of a message after its catalogue number, separated by blanks.
std::string readable(std::string message)
{
    message.erase(0, message.find(partSeparator) + 1); // removes nothing if there is no separator
    std::replace(message.begin(), message.end(), partSeparator, ' ');
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
    reportLine(format, arguments, [](std::string const& text) {
        std::string line = "solvane: ";
        appendEscaped(line, readable(text));
        return line;
    });
    va_end(arguments);
}

} // namespace Solvane
