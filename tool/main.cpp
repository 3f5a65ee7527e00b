// The administrator's tool for directory lookups: process-wide settings and the exit status.
#include "CommandLine.h"
#include "Console.h"
#include "Failure.h"

#include <solvart/Exception.h>

#include <fmt/format.h>

#include <csignal>
#include <exception>

namespace {

using namespace Solvane::Tool;

Outcome runReporting(int count, char** arguments, Diagnostics& diagnostics)
{
    try {
        Output output;
        Outcome const outcome = runCommandLine(count, arguments, output, diagnostics);
        output.finish();
        return outcome;
    } catch (Failure const& failure) {
        diagnostics.error(failure.what());
        return failure.outcome();
    } catch (ReaderGone const&) {
        return Outcome::outputFailed;
    } catch (Solvane::Exception const& fault) {
        diagnostics.error(fmt::format("internal fault: {}; report it", fault.asString()));
    } catch (std::exception const& fault) {
        diagnostics.error(fmt::format("internal fault: {}; report it", fault.what()));
    }
    return Outcome::internal;
}

} // namespace

int main(int count, char** arguments)
{
    // A reader that goes away is seen as an error of write().
    std::signal(SIGPIPE, SIG_IGN);
    reserveStandardStreams();
    Diagnostics diagnostics;
    return exitStatusOf(runReporting(count, arguments, diagnostics));
}
