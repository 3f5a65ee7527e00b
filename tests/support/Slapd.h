// A real directory server for a test, made by the scripts in testbed/.
#ifndef SOLVANE_TESTS_SUPPORT_SLAPD_H
#define SOLVANE_TESTS_SUPPORT_SLAPD_H

#include "TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

typedef struct ldap LDAP;

namespace SolvaneTest {

/// An OpenLDAP server with the data described in testbed/README.md, on its own ports. The
/// destructor stops it; at the latest it ends with the process.
class Slapd {
public:
    /// @param options  those of testbed/slapd-start
    /// @throws std::runtime_error  it does not start; what() holds the script's output
    explicit Slapd(std::vector<std::string> const& options = {});
    Slapd(Slapd const&) = delete;
    Slapd& operator=(Slapd const&) = delete;
    ~Slapd();

    static bool isInstalled();
    /// Skips the calling test; fails it if the environment variable CI is "true", since it must run
    /// there.
    static void reportMissing();

    std::string host() const { return "127.0.0.1"; }
    unsigned int port() const { return m_port; }
    unsigned int tlsPort() const { return m_tlsPort; }
    pid_t pid() const { return m_pid; }
    std::string uri() const;
    /// Path of its UNIX socket.
    std::filesystem::path socketPath() const { return m_directory / "ldapi"; }
    /// A file that testbed/mkcerts made.
    std::filesystem::path tlsFile(std::string const& name) const
    {
        return m_directory / "tls" / name;
    }
    /// The certificate of the authority that signed the server's.
    std::filesystem::path caFile() const { return m_directory / "tls" / "ca.pem"; }
    /// The DER certificate that the data holds as userCertificate;binary.
    std::filesystem::path certificateFile() const { return m_directory / "tls" / "good.der"; }

    bool isRunning() const;
    /// Kills the process, as in a crash, and waits until it is gone.
    void kill();
    /// Restarts it with the same ports and data.
    void restart();
    /// Pauses the process: the kernel still accepts connections, but there are no answers.
    void pause();
    void resume();

    /// The server's current number of connections, not counting the one used for this query.
    long connectionCount();

private:
    void takeAddress(std::string const& environment);
    void signal(int number) const;
    void closeMonitor();

    TemporaryDirectory m_folder;
    std::filesystem::path m_directory;
    unsigned int m_port;
    unsigned int m_tlsPort;
    pid_t m_pid;
    LDAP* m_monitor; ///< session for the server's counters; null until needed
};

/// Base of suites that share one server. `Suite` names its options: `static Slapd::... options()`.
///
/// Without an installed server, its tests are skipped; they fail if the environment variable CI is
/// "true", since they must run there.
template <typename Suite> class SuiteWithSlapd : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (Slapd::isInstalled()) {
            s_slapd = std::make_unique<Slapd>(Suite::options());
        }
    }
    static void TearDownTestSuite() { s_slapd.reset(); }

    void SetUp() override
    {
        if (!hasSlapd()) {
            Slapd::reportMissing();
        }
    }

    static bool hasSlapd() { return s_slapd != nullptr; }
    static Slapd& slapd() { return *s_slapd; }

private:
    static std::unique_ptr<Slapd> s_slapd;
};

template <typename Suite> std::unique_ptr<Slapd> SuiteWithSlapd<Suite>::s_slapd;

} // namespace SolvaneTest

#endif
