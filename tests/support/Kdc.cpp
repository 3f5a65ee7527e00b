// Starts and stops through testbed/kdc-start and stop.
#include "Kdc.h"

#include "Process.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <arpa/inet.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

void runChecked(std::vector<std::string> const& command)
{
    ProgramOutcome const outcome = run(command);
    if (outcome.exitStatus != 0) {
        throw std::runtime_error(command.front() + " failed: " + outcome.output);
    }
}

std::string contentsOf(std::filesystem::path const& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

} // namespace

Kdc::Kdc() : m_directory(m_folder.path() / "kdc")
{
    runChecked({SOLVANE_TESTBED "/kdc-start", m_directory, "--owner", std::to_string(getpid())});
    setenv("KRB5_KDC_PROFILE", file("kdc.conf").c_str(), 1);
    useRealm();
}

Kdc::~Kdc()
{
    for (char const* const name :
         {"KRB5_CONFIG", "KRB5_KDC_PROFILE", "KRB5CCNAME", "KRB5_CLIENT_KTNAME"}) {
        unsetenv(name);
    }
    try {
        runChecked({SOLVANE_TESTBED "/stop", m_directory});
    } catch (std::exception const& failure) {
        ADD_FAILURE() << failure.what();
    }
}

bool Kdc::isInstalled()
{
    return run({"/bin/sh", "-c",
                "PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin; command -v krb5kdc && "
                "command -v kadmin.local && command -v kinit && "
                "ls /usr/lib*/sasl2/libgssapiv2.so /usr/lib/*/sasl2/libgssapiv2.so | grep ."})
               .exitStatus == 0;
}

void Kdc::reportMissing()
{
    char const* const ci = std::getenv("CI");
    if (ci != nullptr && std::string(ci) == "true") {
        FAIL() << "a KDC, its tools or the SASL mechanism GSSAPI are not installed";
    }
    GTEST_SKIP() << "a KDC, its tools or the SASL mechanism GSSAPI are not installed";
}

void Kdc::useTicket(std::string const& principal, std::vector<std::string> const& options)
{
    useRealm();
    std::filesystem::path const cache = newCache();
    std::vector<std::string> command = {
        "kinit", "-k", "-t", file(principal + ".keytab"), "-c", "FILE:" + cache.string()};
    command.insert(command.end(), options.begin(), options.end());
    command.push_back(principal);
    runChecked(command);
    useCache(cache);
}

void Kdc::useCache(std::filesystem::path const& cache)
{
    setenv("KRB5CCNAME", ("FILE:" + cache.string()).c_str(), 1);
    setenv("KRB5_CLIENT_KTNAME", "FILE:/dev/null/none", 1);
}

void Kdc::useKeytab(std::filesystem::path const& keytab)
{
    useRealm();
    setenv("KRB5CCNAME", ("FILE:" + newCache().string()).c_str(), 1);
    setenv("KRB5_CLIENT_KTNAME", ("FILE:" + keytab.string()).c_str(), 1);
}

/// A credentials cache begins with the difference between the clocks, which the library adds to all
/// its times: version 5.4, length of the header, tag 1, length 8, seconds, microseconds.
void Kdc::setClock(int seconds) const
{
    constexpr std::streamoff secondsAt = 8;
    std::string const cache = file("ccache" + std::to_string(m_caches));
    std::string const header("\5\4\0\14\0\1\0\10", secondsAt);
    if (contentsOf(cache).compare(0, secondsAt, header) != 0) {
        throw std::runtime_error(cache + " has no difference between the clocks");
    }
    std::uint32_t const number = htonl(static_cast<std::uint32_t>(seconds));
    std::fstream stream(cache, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(secondsAt);
    stream.write(reinterpret_cast<char const*>(&number), sizeof number);
}

void Kdc::useConfiguration(std::string const& text)
{
    std::filesystem::path const other = file("other.conf");
    std::ofstream(other) << text;
    setenv("KRB5_CONFIG", other.c_str(), 1);
}

std::string Kdc::configuration() const { return contentsOf(file("krb5.conf")); }

void Kdc::administer(std::vector<std::string> const& command) const
{
    std::vector<std::string> all = {
        "/bin/sh",
        "-c",
        R"(PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin; exec kadmin.local "$@")",
        "kadmin.local",
        "-r",
        "CORP.TEST"};
    all.insert(all.end(), command.begin(), command.end());
    runChecked(all);
}

std::filesystem::path Kdc::newCache() { return file("ccache" + std::to_string(++m_caches)); }

void Kdc::useRealm() const { setenv("KRB5_CONFIG", file("krb5.conf").c_str(), 1); }

} // namespace SolvaneTest
