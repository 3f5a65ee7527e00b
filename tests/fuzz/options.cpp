// Command lines of "expand", the command that asks no server: printed, or refused in one line.
#include "Commands.h"
#include "Outcome.h"
#include "Target.h"

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

using namespace Solvane;

namespace {

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

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    constexpr std::size_t most = 24;
    std::vector<std::string> arguments =
        SolvaneTest::piecesOf(SolvaneTest::textOf(data, size), most);
    arguments.insert(arguments.begin(), {"solvane-ldap", "expand"});
    if (std::any_of(arguments.begin() + 2, arguments.end(), leadsOutside)) {
        return 0;
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
        SolvaneTest::require(status == 0 || status == 65, "expand prints, or finds bad input");
    } catch (Tool::Failure const& failure) {
        SolvaneTest::require(!failure.cause().empty(), "a refusal says why");
    }
    return 0;
}
