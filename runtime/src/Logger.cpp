// The operator's log and debug output with its mask, on standard error.
#include <solvart/Logger.h>

#include <solvart/Debug.h>

#include "Line.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <limits>
#include <string>

namespace {

// Returns 0 for text that is not a 32-bit number.
unsigned int maskFromEnvironment()
{
    char const* const text = std::getenv("SOLVANE_DEBUG_MASK");
    if (text == nullptr || std::isdigit(static_cast<unsigned char>(*text)) == 0) {
        return 0; // strtoul accepts blanks and a sign
    }
    char* end = nullptr;
    errno = 0;
    unsigned long const mask = std::strtoul(text, &end, 0);
    bool const isMask =
        *end == '\0' && errno == 0 && mask <= std::numeric_limits<unsigned int>::max();
    return isMask ? static_cast<unsigned int>(mask) : 0;
}

std::string orEmpty(char const* text) { return text == nullptr ? std::string() : text; }

} // namespace

unsigned int basepp_dbg_mask_ = maskFromEnvironment();

namespace basepp {
namespace dbg {

void debug(char const* file, int line, char const* function, int /*flags*/, char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Solvane::reportLine(format, arguments, [&](std::string const& text) {
        std::string whole;
        Solvane::appendEscaped(whole, orEmpty(file) + ':' + std::to_string(line) + ' ' +
                                          orEmpty(function) + ": " + text);
        return whole;
    });
    va_end(arguments);
}

} // namespace dbg
} // namespace basepp

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
