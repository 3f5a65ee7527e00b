// The entry point of the service: options, and its exit status.
#include "Log.h"
#include "Outcome.h"
#include "Service.h"
#include "ServiceSettings.h"

#include <solvane/ldap/LDAPException.h>

#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include <getopt.h>
#include <sys/resource.h>
#include <sysexits.h>

namespace {

using namespace Solvane::Service;
using Solvane::Tool::Failure;

constexpr char help[] = R"(Usage: solvane-ldapd [OPTIONS]
Answers mail servers' lookups and logins from a directory; see solvane-ldapd(8).

  -C, --config FOLDER    Folder of the settings; default /etc/solvane-ldap
      --check            Check the settings, and end
      --stats-file FILE  Write the metrics into this file every ten seconds
  -h, --help             Print this help
  -V, --version          Print the version
)";

struct Options {
    std::string folder = "/etc/solvane-ldap";
    std::string statsFile;
    bool onlyChecks = false;
};

/// Empty if the program is to end with `status`.
std::optional<Options> optionsOf(int count, char** arguments, int& status)
{
    constexpr int check = 1;
    constexpr int statsFile = 2;
    option const known[] = {{"config", required_argument, nullptr, 'C'},
                            {"check", no_argument, nullptr, check},
                            {"stats-file", required_argument, nullptr, statsFile},
                            {"help", no_argument, nullptr, 'h'},
                            {"version", no_argument, nullptr, 'V'},
                            {nullptr, 0, nullptr, 0}};
    Options options;
    status = EX_OK;
    for (int chosen = 0; (chosen = getopt_long(count, arguments, "C:hV", known, nullptr)) != -1;) {
        switch (chosen) {
        case 'C':
            options.folder = optarg;
            break;
        case check:
            options.onlyChecks = true;
            break;
        case statsFile:
            options.statsFile = optarg;
            break;
        case 'h':
            std::fputs(help, stdout);
            return std::nullopt;
        case 'V':
            std::puts("solvane-ldapd " SOLVANE_SERVICE_VERSION);
            return std::nullopt;
        default: // getopt_long has said why
            status = EX_USAGE;
            return std::nullopt;
        }
    }
    if (optind < count) {
        std::fprintf(stderr, "solvane-ldapd: unexpected argument '%s'; see solvane-ldapd --help\n",
                     arguments[optind]);
        status = EX_USAGE;
        return std::nullopt;
    }
    return options;
}

/// Each client needs a descriptor.
void raiseLimitOfFiles()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// A SIGHUP that comes before the service can take it must not end the process: it waits.
void blockReload()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

int run(Options const& options, Log& log)
{
    std::vector<Failure> faults;
    auto const configuration = readConfiguration(options.folder, faults);
    for (Failure const& fault : faults) {
        log.write(Log::Level::error, fault.what());
    }
    if (!faults.empty()) {
        return EX_CONFIG;
    }
    if (options.onlyChecks) {
        fmt::print("{}: the settings of {} maps are valid\n", options.folder,
                   configuration->maps.size());
        return EX_OK;
    }
    raiseLimitOfFiles();
    Service(options.folder, configuration, options.statsFile, log).run();
    log.write(Log::Level::notice, "stopped");
    return EX_OK;
}

} // namespace

int main(int count, char** arguments)
{
    std::signal(SIGPIPE, SIG_IGN); // write() reports it
    blockReload();
    int status = EX_OK;
    auto const options = optionsOf(count, arguments, status);
    if (!options) {
        return status;
    }
    Log log(Log::isJournal());
    try {
        return run(*options, log);
    } catch (Failure const& failure) {
        log.write(Log::Level::error, failure.what());
        return EX_CONFIG;
    } catch (Solvane::Exception const& fault) {
        log.write(Log::Level::error, fault.asString());
    } catch (std::exception const& fault) {
        log.write(Log::Level::error, fault.what());
    }
    return EX_SOFTWARE;
}
