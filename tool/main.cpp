// The entry point of the tool: process-wide settings and the exit status.
#include "Commands.h"
#include "Console.h"
#include "Outcome.h"

#include <solvart/Exception.h>

#include <fmt/format.h>

#include <csignal>
#include <exception>

namespace {

using namespace Solvane::Tool;

int runReporting(int count, char** arguments, Diagnostics& diagnostics)
{
    try {
        Output output;
        int const status = runCommandLine(count, arguments, output, diagnostics);
        output.finish();
        return status;
    } catch (Failure const& failure) {
        diagnostics.error(failure.what());
        return exitStatusOf(failure.outcome());
    } catch (ReaderGone const&) {
        return exitStatusOf(Outcome::outputFailed);
    } catch (Solvane::Exception const& fault) {
        diagnostics.error(fmt::format("internal error: {}; please report it", fault.asString()));
    } catch (std::exception const& fault) {
        diagnostics.error(fmt::format("internal error: {}; please report it", fault.what()));
    }
    return exitStatusOf(Outcome::internal);
}

} // namespace

int main(int count, char** arguments)
{
    // A closed pipe is then reported by write().
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // likewise, of a file at its limit
    reserveStandardStreams();
    Diagnostics diagnostics;
    return runReporting(count, arguments, diagnostics);
}
