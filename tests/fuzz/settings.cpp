// Settings files: each is taken or refused with its line, and a refusal shows no password.
#include "Outcome.h"
#include "SettingsFile.h"
#include "Target.h"

using namespace Solvane;
using SolvaneTest::require;

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    // A list of domains may name a file: only those that are written out are tried here.
    if (SolvaneTest::textOf(data, size).find("domain") != std::string::npos) {
        return 0;
    }
    SolvaneTest::InputFile const file(data, size);
    try {
        Tool::SettingsFile const settings(file.path());
        require(settings.draft().lookup.password.empty(), "the password stays apart");
    } catch (Tool::Failure const& failure) {
        require(failure.outcome() == Tool::Outcome::configuration, "a fault is a wrong setting");
        require(!failure.remedy().empty(), "a fault names its remedy");
    }
    return 0;
}
