// solvane_soak: many threads look users up for a given time, by the engine and by the pool, through a
// balancer and straight at the servers; what came of it is written as JSON to standard output.
//
// The password comes from the environment variable LDAP_PASSWORD. Every server is on 127.0.0.1. Says
// on standard error when the load begins. Exit status: 0 the load was put on, whatever came of it; 2 it
// was not. soak.py starts the servers, makes them fail meanwhile, and judges.
#include "Exchange.h"
#include "FaultyServer.h"
#include "LdapMessages.h"
#include "Load.h"
#include "NameServer.h"

#include <CLI/CLI.hpp>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <numeric>

using namespace SolvaneTest;
using Json = rapidjson::Writer<rapidjson::StringBuffer>;

namespace {

/// A name of two addresses: nobody listens at the first, the servers of the load are at the second.
class HalfDeadName {
public:
    static constexpr char name[] = "ldap.corp.test";

    HalfDeadName();

    /// Of the name server that knows it.
    std::string nameServer() const { return m_names.address(); }

private:
    NameServer m_names;
};

/// A server that accepts every bind and fails every search: it says in turn that it is busy, that
/// something went wrong, what is not LDAP, and nothing more as it closes the connection.
class SpoilingServer {
public:
    unsigned int port() const { return m_server.port(); }

private:
    FaultyServer m_server{spoil};

    static void spoil(FaultyServer::Peer& peer);
};

HalfDeadName::HalfDeadName() { m_names.add(name, {"127.0.0.2", "127.0.0.1"}); }

void SpoilingServer::spoil(FaultyServer::Peer& peer)
{
    constexpr long busy = 51;
    constexpr long other = 80;
    constexpr unsigned int ways = 4;
    static std::atomic<unsigned int> asked{0};
    for (;;) {
        std::string const request = peer.receive();
        if (request.empty()) {
            return;
        }
        if (stepOf(request) != Step::search) {
            std::vector<std::string> const replies = repliesTo(request);
            peer.send(std::accumulate(replies.begin(), replies.end(), std::string()));
            continue;
        }
        int const id = messageIdOf(request);
        switch (asked++ % ways) {
        case 0:
            peer.send(finalResponse(Step::search, id, busy));
            break;
        case 1:
            peer.send(finalResponse(Step::search, id, other));
            break;
        case 2:
            peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
            return;
        default:
            return;
        }
    }
}

struct Options {
    LoadSettings load;
    unsigned int seconds = 60;
    double tideSeconds = 20;
    std::string bindDn;
    unsigned int balancer = 0;           ///< port
    std::vector<unsigned int> providers; ///< ports
    unsigned int connections = 8;        ///< of each engine
    std::string service;                 ///< its socketmap socket; empty: it is not used
    std::vector<std::string> ways;       ///< that are used; empty: all
};

Options optionsFrom(CLI::App& program, int count, char** arguments)
{
    Options options;
    program.add_option("--seconds", options.seconds)->check(CLI::PositiveNumber);
    program.add_option("--threads", options.load.threads)->check(CLI::Range(1, 1000));
    program.add_option("--rate", options.load.rate)->check(CLI::PositiveNumber);
    program.add_option("--tide", options.tideSeconds)->check(CLI::PositiveNumber);
    program.add_option("--users", options.load.users)->check(CLI::PositiveNumber);
    program.add_option("--seed", options.load.seed);
    program.add_option("--connections", options.connections)->check(CLI::PositiveNumber);
    program.add_option("--service", options.service);
    program.add_option("--way", options.ways)
        ->check(CLI::IsMember({"engine-balancer", "engine-list", "engine-name", "engine-spoiled",
                               "pool-balancer", "service"}));
    program.add_option("--bind-dn", options.bindDn)->required();
    program.add_option("--base", options.load.base)->required();
    program.add_option("--balancer", options.balancer)->required();
    program.add_option("--provider", options.providers)->required();
    program.parse(count, arguments);
    options.load.length = std::chrono::seconds(options.seconds);
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
    if (!options.service.empty() && isUsed("service")) {
        load.parties.push_back(
            {"service", std::make_unique<ServiceWay>(options.service, options.load.base)});
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

void write(Json& json, double number) { json.Double(number); }

void write(Json& json, std::uint64_t number) { json.Uint64(number); }

void write(Json& json, std::string const& text) { json.String(text.c_str()); }

void write(Json& json, Clock::time_point moment) { json.Double(secondsOf(moment)); }

void write(Json& json, Span const& span)
{
    json.StartArray();
    write(json, span.from);
    write(json, span.to);
    json.EndArray();
}

template <typename Value> void write(Json& json, std::vector<Value> const& values)
{
    json.StartArray();
    for (Value const& value : values) {
        write(json, value);
    }
    json.EndArray();
}

template <typename Value> void write(Json& json, std::map<std::string, Value> const& values)
{
    json.StartObject();
    for (auto const& [name, value] : values) {
        json.Key(name.c_str());
        write(json, value);
    }
    json.EndObject();
}

void write(Json& json, Latencies const& latencies);

template <typename Value> void write(Json& json, char const* name, Value const& value)
{
    json.Key(name);
    write(json, value);
}

void write(Json& json, Latencies const& latencies)
{
    json.StartObject();
    if (latencies.count() != 0) {
        std::pair<char const*, double> const shares[] = {
            {"p50", 0.5}, {"p99", 0.99}, {"p99.9", 0.999}, {"max", 1}};
        for (auto const& [name, share] : shares) {
            write(json, name, latencies.milliseconds(share));
        }
    }
    json.EndObject();
}

void write(Json& json, WayReport const& way)
{
    json.StartObject();
    write(json, "name", way.name);
    write(json, "threads", std::uint64_t{way.threads});
    write(json, "lookups", way.latencies.count());
    write(json, "found", way.found);
    write(json, "notFound", way.notFound);
    write(json, "wrong", way.wrong);
    write(json, "wrongAnswers", way.wrongAnswers);
    write(json, "errors", way.errors);
    write(json, "errorTexts", way.errorTexts);
    write(json, "errorTimes", way.errorTimes);
    write(json, "milliseconds", way.latencies);
    write(json, "stretches", way.stretches);
    write(json, "outages", way.outages);
    write(json, "statistics", way.statistics);
    json.EndObject();
}

std::string soak(Options const& options)
{
    std::uint64_t const before = openDescriptors();
    LoadReport report;
    {
        Load const load = loadFor(options);
        std::cerr << "load begins" << std::endl;
        report = putLoadOn(load.parties, options.load);
    }
    rapidjson::StringBuffer text;
    Json json(text);
    json.StartObject();
    write(json, "start", report.time.from);
    write(json, "end", report.time.to);
    json.Key("descriptors");
    json.StartObject();
    write(json, "before", before);
    write(json, "after", std::uint64_t{openDescriptors()});
    json.EndObject();
    json.Key("ways");
    json.StartArray();
    for (WayReport const& way : report.ways) {
        write(json, way);
    }
    json.EndArray();
    json.EndObject();
    return text.GetString();
}

} // namespace

int main(int count, char** arguments)
{
    CLI::App program("Puts a load of lookups on directory servers.");
    try {
        Options const options = optionsFrom(program, count, arguments);
        std::cout << soak(options) << std::endl;
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
