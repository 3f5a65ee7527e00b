// solvane_soak: many threads look users up for a given time, by the engine and by the pool, through a
// balancer and straight at the servers; what came of it is written as JSON to standard output.
//
// The password comes from the environment variable LDAP_PASSWORD. Every server is on 127.0.0.1. Says
// on standard error when the load begins. Exit status: 0 the load was put on, whatever came of it; 2 it
// was not. soak.py starts the servers, makes them fail meanwhile, and judges.
#include "Load.h"
#include "Surroundings.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>

using namespace SolvaneTest;
using nlohmann::json;

namespace {

struct Options {
    LoadSettings load;
    unsigned int seconds = 60;
    unsigned int warmUpSeconds = 0;
    double tideSeconds = 20;
    std::string bindDn;
    unsigned int balancer = 0;           ///< port
    std::vector<unsigned int> providers; ///< ports
    unsigned int connections = 8;        ///< of each engine
    std::vector<std::string> ways;       ///< that are used; empty: all
};

Options optionsFrom(CLI::App& program, int count, char** arguments)
{
    Options options;
    program.add_option("--seconds", options.seconds)->check(CLI::PositiveNumber);
    program.add_option("--warm-up", options.warmUpSeconds);
    program.add_option("--threads", options.load.threads)->check(CLI::Range(1, 1000));
    program.add_option("--rate", options.load.rate)->check(CLI::PositiveNumber);
    program.add_option("--tide", options.tideSeconds)->check(CLI::PositiveNumber);
    program.add_option("--users", options.load.users)->check(CLI::PositiveNumber);
    program.add_option("--seed", options.load.seed);
    program.add_option("--connections", options.connections)->check(CLI::PositiveNumber);
    program.add_option("--way", options.ways)
        ->check(CLI::IsMember(
            {"engine-balancer", "engine-list", "engine-name", "engine-spoiled", "pool-balancer"}));
    program.add_option("--bind-dn", options.bindDn)->required();
    program.add_option("--base", options.load.base)->required();
    program.add_option("--balancer", options.balancer)->required();
    program.add_option("--provider", options.providers)->required();
    program.parse(count, arguments);
    options.load.length = std::chrono::seconds(options.seconds);
    options.load.warmUp = std::chrono::seconds(options.warmUpSeconds);
    options.load.tide = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.tideSeconds));
    return options;
}

Solvane::LDAPLookup::Settings settingsFor(Options const& options,
                                          std::vector<unsigned int> const& ports)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    Solvane::LDAPLookup::Settings settings;
    for (unsigned int const port : ports) {
        settings.servers.push_back({"127.0.0.1", port});
    }
    settings.networkTimeout = 1;
    settings.deadline = std::chrono::seconds(5);
    settings.backOff = std::chrono::milliseconds(250);
    settings.longestBackOff = std::chrono::seconds(2);
    settings.bindDn = options.bindDn;
    settings.password = password == nullptr ? "" : password;
    settings.base = options.load.base;
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = {"mail"};
    settings.connections = options.connections;
    return settings;
}

/// The ways that are used, and what they have around them.
struct Load {
    std::unique_ptr<HalfDeadName> name;
    std::unique_ptr<SpoilingServer> spoiling;
    std::vector<Party> parties;
};

Load loadFor(Options const& options)
{
    auto const isUsed = [&](char const* way) {
        return options.ways.empty() ||
               std::find(options.ways.begin(), options.ways.end(), way) != options.ways.end();
    };
    Load load;
    auto const balanced = settingsFor(options, {options.balancer});
    if (isUsed("engine-balancer")) {
        load.parties.push_back({"engine-balancer", std::make_unique<EngineWay>(balanced)});
    }
    if (isUsed("engine-list")) {
        load.parties.push_back(
            {"engine-list", std::make_unique<EngineWay>(settingsFor(options, options.providers))});
    }
    if (isUsed("engine-name")) {
        load.name = std::make_unique<HalfDeadName>();
        auto named = balanced;
        named.servers.front().host = HalfDeadName::name;
        named.nameServers = {load.name->nameServer()};
        load.parties.push_back({"engine-name", std::make_unique<EngineWay>(named)});
    }
    if (isUsed("engine-spoiled")) {
        load.spoiling = std::make_unique<SpoilingServer>();
        std::vector<unsigned int> ports = options.providers;
        ports.insert(ports.begin(), load.spoiling->port());
        load.parties.push_back(
            {"engine-spoiled", std::make_unique<EngineWay>(settingsFor(options, ports))});
    }
    if (isUsed("pool-balancer")) {
        load.parties.push_back({"pool-balancer", std::make_unique<PoolWay>(balanced)});
    }
    return load;
}

std::size_t openDescriptors()
{
    std::filesystem::directory_iterator const descriptors("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

double secondsOf(Clock::time_point moment)
{
    return std::chrono::duration<double>(moment.time_since_epoch()).count();
}

json describe(std::vector<Span> const& spans)
{
    json list = json::array();
    for (Span const& span : spans) {
        list.push_back({secondsOf(span.from), secondsOf(span.to)});
    }
    return list;
}

json describe(std::vector<Clock::time_point> const& moments)
{
    json list = json::array();
    for (Clock::time_point const moment : moments) {
        list.push_back(secondsOf(moment));
    }
    return list;
}

json describe(Latencies const& latencies)
{
    json description;
    if (latencies.count() != 0) {
        description = {{"p50", latencies.milliseconds(0.5)},
                       {"p99", latencies.milliseconds(0.99)},
                       {"p99.9", latencies.milliseconds(0.999)},
                       {"max", latencies.milliseconds(1)}};
    }
    description["ranges"] = json::array();
    for (Latencies::Range const& range : latencies.ranges()) {
        description["ranges"].push_back({range.milliseconds, range.count});
    }
    return description;
}

json describe(WayReport const& way)
{
    return {{"name", way.name},
            {"threads", way.threads},
            {"lookups", way.latencies.count()},
            {"found", way.found},
            {"notFound", way.notFound},
            {"wrong", way.wrong},
            {"wrongAnswers", way.wrongAnswers},
            {"errors", way.errors},
            {"errorTexts", way.errorTexts},
            {"errorTimes", describe(way.errorTimes)},
            {"milliseconds", describe(way.latencies)},
            {"stretches", describe(way.stretches)},
            {"outages", describe(way.outages)},
            {"statistics", way.statistics}};
}

json soak(Options const& options)
{
    std::size_t const before = openDescriptors();
    LoadReport report;
    {
        Load const load = loadFor(options);
        std::cerr << "load begins" << std::endl;
        report = putLoadOn(load.parties, options.load);
    }
    json ways = json::array();
    for (WayReport const& way : report.ways) {
        ways.push_back(describe(way));
    }
    return {{"start", secondsOf(report.time.from)},
            {"end", secondsOf(report.time.to)},
            {"descriptors", {{"before", before}, {"after", openDescriptors()}}},
            {"ways", ways}};
}

} // namespace

int main(int count, char** arguments)
{
    CLI::App program("Puts a load of lookups on directory servers.");
    try {
        Options const options = optionsFrom(program, count, arguments);
        std::cout << soak(options).dump() << std::endl;
        return 0;
    } catch (CLI::ParseError const& fault) {
        return program.exit(fault) == 0 ? 0 : 2;
    } catch (Solvane::Exception const& failure) {
        std::cerr << "solvane_soak: " << failure.asString() << '\n';
    } catch (std::exception const& failure) {
        std::cerr << "solvane_soak: " << failure.what() << '\n';
    }
    return 2;
}
