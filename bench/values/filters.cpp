// Filters from templates and values, and attribute descriptions: work without a network.
#include <solvane/ldap.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace {

using Solvane::EmailAddress;
using Solvane::LDAPAttributeType;
using Solvane::LDAPUtil;

/// The baseline: no template, no escaping.
void printfOfAnAddress(benchmark::State& state)
{
    std::string const user = "user0012345";
    std::string const domain = "corp.test";
    char filter[256];
    for (auto _ : state) {
        std::snprintf(filter, sizeof filter, "(mail=%s@%s)", user.c_str(), domain.c_str());
        benchmark::DoNotOptimize(filter);
    }
}

void expand(benchmark::State& state, std::string const& text)
{
    std::string const user = "user0012345";
    std::string const domain = "corp.test";
    std::string const none;
    for (auto _ : state) {
        benchmark::DoNotOptimize(LDAPUtil::sv_ldap_expand_query(text, user, domain, none, none));
    }
}

void expandForAnAddress(benchmark::State& state)
{
    EmailAddress const address("user0012345@corp.test");
    for (auto _ : state) {
        benchmark::DoNotOptimize(LDAPUtil::instanceFilterTemplate("(mail=$m)", address));
    }
}

/// A template with this number of specifiers.
void expandLong(benchmark::State& state)
{
    std::string text;
    for (long i = 0; i < state.range(0); ++i) {
        text += "(mail=$m)";
    }
    std::string const user = "user0012345";
    std::string const domain = "corp.test";
    std::string const none;
    for (auto _ : state) {
        benchmark::DoNotOptimize(LDAPUtil::sv_ldap_expand_query(text, user, domain, none, none));
    }
}

/// A value of this number of bytes.
void escape(benchmark::State& state, char byte)
{
    std::string const value(static_cast<std::size_t>(state.range(0)), byte);
    for (auto _ : state) {
        benchmark::DoNotOptimize(LDAPUtil::formalizeQueryFilter(value));
    }
}

void readDescription(benchmark::State& state, std::string const& text)
{
    for (auto _ : state) {
        LDAPAttributeType const type(text);
        benchmark::DoNotOptimize(type.isBinary());
    }
}

} // namespace

BENCHMARK(printfOfAnAddress)->Name("snprintf/(mail=%s@%s)");
BENCHMARK_CAPTURE(expand, mail, "(mail=$m)")->Name("template/(mail=$m)");
BENCHMARK_CAPTURE(expand, two, "(&(uid=$u)(dc=$d))")->Name("template/(&(uid=$u)(dc=$d))");
BENCHMARK_CAPTURE(expand, cut, "(uid=$u${.*})")->Name("template/(uid=$u${.*})");
BENCHMARK(expandForAnAddress)->Name("template of an address/(mail=$m)");
BENCHMARK(expandLong)->Name("template by specifiers")->RangeMultiplier(8)->Range(1, 4096);
BENCHMARK_CAPTURE(escape, plain, 'a')
    ->Name("escape plain")
    ->RangeMultiplier(16)
    ->Range(16, 1 << 16);
BENCHMARK_CAPTURE(escape, special, '*')
    ->Name("escape special")
    ->RangeMultiplier(16)
    ->Range(16, 1 << 16);
BENCHMARK_CAPTURE(readDescription, plain, "mail")->Name("description/mail");
BENCHMARK_CAPTURE(readDescription, options, "userCertificate;binary;lang-fr")
    ->Name("description/userCertificate;binary;lang-fr");
