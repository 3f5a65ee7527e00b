// Targets of the tool: LDIF, settings files and command lines.
#include "Commands.h"
#include "Ldif.h"
#include "Outcome.h"
#include "SettingsFile.h"
#include "Target.h"

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

using namespace Solvane;
using SolvaneTest::require;

namespace {

void readThrough(std::string const& path, std::size_t size)
{
    Tool::LdifReader reader(path);
    for (std::size_t records = 0;; ++records) {
        require(records <= size, "the reader ends");
        Tool::LdifEntry entry;
        try {
            if (!reader.next(entry)) {
                return;
            }
            require(!entry.dn.empty(), "an entry has a DN");
            require(entry.line > 0, "an entry has a line");
            for (LDAPAttribute const& attribute : entry.attributes) {
                require(!attribute.binaryValue().empty(), "an attribute has a value");
            }
        } catch (Tool::LdifFault const& fault) {
            require(fault.outcome() == Tool::Outcome::badInput, "a fault is bad input");
        }
    }
}

/// Input from nowhere and output to nowhere.
void silenceStreams()
{
    static bool const isDone = [] {
        int const nothing = open("/dev/null", O_RDWR);
        dup2(nothing, STDIN_FILENO);
        dup2(nothing, STDOUT_FILENO);
        return true;
    }();
    (void)isDone;
}

/// Whether a word would ask a server, wait for input, or name a file of this machine.
bool leadsOutside(std::string const& argument)
{
    static std::string const words[] = {"lookup", "check", "add"};
    return std::find(std::begin(words), std::end(words), argument) != std::end(words) ||
           argument.find('/') != std::string::npos ||
           argument.find("password-fd") != std::string::npos;
}

} // namespace

namespace SolvaneTest {

/// LDIF from anywhere: each record is an entry or a fault with its line, and the reader ends.
void fuzz_ldif(std::uint8_t const* data, std::size_t size)
{
    InputFile const file(data, size);
    readThrough(file.path(), size);
}

/// Settings files: each is taken or refused with its line, and a refusal shows no password.
void fuzz_settings(std::uint8_t const* data, std::size_t size)
{
    // Some settings may name files: they are not tried here.
    std::string const text = textOf(data, size);
    if (text.find("domain") != std::string::npos || text.find("include") != std::string::npos) {
        return;
    }
    InputFile const file(data, size);
    try {
        Tool::SettingsFile const settings(file.path());
        require(settings.draft().lookup.password.empty(), "the password stays apart");
    } catch (Tool::Failure const& failure) {
        require(failure.outcome() == Tool::Outcome::configuration, "a fault is a wrong setting");
        require(!failure.remedy().empty(), "a fault names its remedy");
    }
}

/// Command lines of "expand", the command that asks no server: printed, or refused in one line.
void fuzz_options(std::uint8_t const* data, std::size_t size)
{
    constexpr std::size_t most = 24;
    std::vector<std::string> arguments = piecesOf(textOf(data, size), most);
    arguments.insert(arguments.begin(), {"solvane-ldap", "expand"});
    if (std::any_of(arguments.begin() + 2, arguments.end(), leadsOutside)) {
        return;
    }
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    silenceStreams();
    Tool::Output output;
    Tool::Diagnostics diagnostics;
    diagnostics.level(Tool::Diagnostics::Level::quiet);
    try {
        int const status = Tool::runCommandLine(static_cast<int>(pointers.size()), pointers.data(),
                                                output, diagnostics);
        require(status == 0 || status == 65, "expand prints, or finds bad input");
    } catch (Tool::Failure const& failure) {
        require(!failure.cause().empty(), "a refusal says why");
    }
}

} // namespace SolvaneTest
