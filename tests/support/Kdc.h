// A Kerberos realm for a test, made by testbed/kdc-start.
#ifndef SOLVANE_TESTS_SUPPORT_KDC_H
#define SOLVANE_TESTS_SUPPORT_KDC_H

#include "TemporaryDirectory.h"

#include <filesystem>
#include <string>
#include <vector>

namespace SolvaneTest {

/// The realm CORP.TEST with the principals of testbed/kdc-start. Sets KRB5_CONFIG and the like in
/// this process, and in those that it starts; the destructor stops the KDC and unsets them.
class Kdc {
public:
    /// @throws std::runtime_error  it does not start; what() holds the script's output
    Kdc();
    Kdc(Kdc const&) = delete;
    Kdc& operator=(Kdc const&) = delete;
    ~Kdc();

    /// Whether the KDC, its tools and the mechanism of Cyrus SASL are installed.
    static bool isInstalled();
    /// Skips the calling test; fails it if the environment variable CI is "true".
    static void reportMissing();

    /// For `--kerberos` of testbed/slapd-start.
    std::filesystem::path const& folder() const { return m_directory; }
    /// A file of the realm's folder, such as "service.keytab".
    std::filesystem::path file(std::string const& name) const { return m_directory / name; }

    /// Makes this process use a new ticket of that principal, by its keytab.
    void useTicket(std::string const& principal, std::vector<std::string> const& options = {});
    /// Makes this process use this credentials cache; no client keytab.
    static void useCache(std::filesystem::path const& cache);
    /// Makes this process use this keytab; there is no ticket yet.
    void useKeytab(std::filesystem::path const& keytab);
    /// Sets the clock of the ticket in use to that many seconds after the KDC's.
    void setClock(int seconds) const;
    /// Makes this process use another krb5.conf. Undone by the next call of `useTicket` and the like.
    void useConfiguration(std::string const& text);
    /// The text of the realm's krb5.conf.
    std::string configuration() const;

    /// Runs a command of kadmin.local.
    void administer(std::vector<std::string> const& command) const;

private:
    std::filesystem::path newCache();
    void useRealm() const;

    TemporaryDirectory m_folder;
    std::filesystem::path m_directory;
    int m_caches = 0;
};

} // namespace SolvaneTest

#endif
