// Rows measured against a real directory, each contender in turn; records on standard output.
//
//   solvane_bench_directory --port N --secure-port N --ca FILE --users N [--rounds N]
//                           [--block SECONDS] ROW...
#include "rows.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>

#include <getopt.h>

namespace {

using SolvaneBench::Options;
using SolvaneBench::Rounds;

std::map<std::string, void (*)(Options const&, Rounds const&)> const rowsByName = {
    {"lookups", SolvaneBench::lookups},   {"windows", SolvaneBench::windows},
    {"big", SolvaneBench::bigSearch},     {"binds", SolvaneBench::binds},
    {"adds", SolvaneBench::adds},         {"threads", SolvaneBench::threads},
    {"verifies", SolvaneBench::verifies}, {"changes", SolvaneBench::changes},
};

[[noreturn]] void refuse(char const* what)
{
    std::fprintf(stderr, "solvane_bench_directory: %s\n", what);
    std::exit(2);
}

Options parsed(int count, char** words)
{
    Options options;
    static option const known[] = {{"port", required_argument, nullptr, 'p'},
                                   {"secure-port", required_argument, nullptr, 's'},
                                   {"ca", required_argument, nullptr, 'c'},
                                   {"users", required_argument, nullptr, 'u'},
                                   {"rounds", required_argument, nullptr, 'r'},
                                   {"block", required_argument, nullptr, 'b'},
                                   {nullptr, 0, nullptr, 0}};
    for (int letter = 0; (letter = getopt_long(count, words, "", known, nullptr)) != -1;) {
        switch (letter) {
        case 'p':
            options.port = static_cast<unsigned int>(std::stoul(optarg));
            break;
        case 's':
            options.securePort = static_cast<unsigned int>(std::stoul(optarg));
            break;
        case 'c':
            options.caFile = optarg;
            break;
        case 'u':
            options.users = std::stoul(optarg);
            break;
        case 'r':
            options.rounds = static_cast<unsigned int>(std::stoul(optarg));
            break;
        case 'b':
            options.blockSeconds = std::stod(optarg);
            break;
        default:
            refuse("unknown option");
        }
    }
    options.rows.assign(words + optind, words + count);
    if (options.port == 0 || options.securePort == 0 || options.caFile.empty() ||
        options.users == 0) {
        refuse("needs --port, --secure-port, --ca and --users");
    }
    return options;
}

} // namespace

int main(int count, char** words)
{
    try {
        Options const options = parsed(count, words);
        Rounds const rounds(options.rounds, options.blockSeconds, SolvaneBench::Cpu::process);
        for (std::string const& name : options.rows) {
            auto const row = rowsByName.find(name);
            if (row == rowsByName.end()) {
                refuse("unknown row");
            }
            row->second(options, rounds);
        }
        return 0;
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "solvane_bench_directory: %s\n", failure.what());
    } catch (Solvane::Exception const& failure) {
        std::fprintf(stderr, "solvane_bench_directory: %s\n", failure.stringParameter().c_str());
    }
    return 1;
}
