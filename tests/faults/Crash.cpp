// Backtraces and assertions.
#include "Crash.h"

#include <csignal>
#include <regex>
#include <sstream>

#include <execinfo.h>
#include <unistd.h>

// Defined if the address sanitizer is present.
extern "C" void __asan_init() __attribute__((weak));

namespace SolvaneTest {

namespace {

void printBacktrace(int number)
{
    void* frames[40];
    backtrace_symbols_fd(frames, backtrace(frames, 40), STDERR_FILENO);
    std::signal(number, SIG_DFL);
    raise(number);
}

} // namespace

void reportCrashes()
{
    if (__asan_init != nullptr) {
        return;
    }
    void* first[1];
    backtrace(first, 1); // loads what a handler must not load
    std::signal(SIGSEGV, printBacktrace);
    std::signal(SIGBUS, printBacktrace);
}

std::string openLdapFunctionIn(std::string const& standardError)
{
    std::smatch found;
    // "program: .../libraries/libldap/search.c:190: ldap_search: Assertion `...' failed."
    static std::regex const assertion("libraries/lib(?:ldap|lber)/[^:]*:\\d+: (\\w+): Assertion");
    if (std::regex_search(standardError, found, assertion)) {
        return found[1].str() + " (assertion)";
    }
    // "#1 0x7f... in name (/lib/libldap-2.5.so.0+0x...)", "/lib/libldap-2.5.so.0(name+0x..)[0x..]"
    static std::regex const sanitizer("#\\d+ 0x[0-9a-f]+ (?:in (\\S+) )?\\(?(\\S+)");
    static std::regex const backtrace("^(\\S*)\\((\\w*)[+)].*\\[0x");
    std::istringstream lines(standardError);
    for (std::string line; std::getline(lines, line);) {
        bool const isSanitizers = std::regex_search(line, found, sanitizer);
        if (!isSanitizers && !std::regex_search(line, found, backtrace)) {
            continue;
        }
        std::string const object = found[isSanitizers ? 2 : 1];
        std::string const function = found[isSanitizers ? 1 : 2];
        if (object.find("libldap") != std::string::npos ||
            object.find("liblber") != std::string::npos) {
            return (function.empty() ? "a function without a name" : function) + " (crash)";
        }
        bool const isCalledByAny = object.find("libasan") != std::string::npos ||
                                   object.find("libc.so") != std::string::npos ||
                                   object.find("sanitizer") != std::string::npos ||
                                   line.find("printBacktrace") != std::string::npos;
        if (!isCalledByAny) {
            return std::string();
        }
    }
    return std::string();
}

} // namespace SolvaneTest
