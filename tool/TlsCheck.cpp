// Completes the policy as a TLS context does, and shows it. GnuTLS reads the files.
#include "TlsCheck.h"

#include "Files.h"
#include "OpenLDAP.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>
#include <solvane/session/Certificate.h>
#include <solvane/session/TlsContext.h>

#include <fmt/format.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

#include <strings.h>
#include <sys/stat.h>

namespace Solvane::Tool {

using Lookup::Certificate;
using Lookup::TlsContext;
using Lookup::TlsPolicy;
using Lookup::TlsVerify;
using Lookup::TlsVersion;

namespace {

constexpr long secondsOfADay = 86400;
constexpr long daysOfWarning = 14;

// Where a value comes from

/// A file of OpenLDAP's configuration (ldap.conf(5)).
struct ConfigurationFile {
    std::string path;
    bool isOfUser;
};

/// OpenLDAP's files, the one that counts most first.
std::vector<ConfigurationFile> configurationFiles()
{
    auto const variable = [](char const* name) {
        char const* const value = getenv(name);
        return std::string(value == nullptr ? "" : value);
    };
    std::string const home = variable("HOME");
    std::vector<ConfigurationFile> files;
    auto const addOfUser = [&](std::string const& name) {
        files.push_back({name, true});
        if (!home.empty()) {
            files.push_back({home + "/." + name, true});
            files.push_back({home + '/' + name, true});
        }
    };
    if (std::string const name = variable("LDAPRC"); !name.empty()) {
        addOfUser(name);
    }
    if (std::string const path = variable("LDAPCONF"); !path.empty()) {
        files.push_back({path, false});
    }
    addOfUser("ldaprc");
    for (char const* const path :
         {"/etc/ldap/ldap.conf", "/etc/openldap/ldap.conf", "/usr/local/etc/openldap/ldap.conf"}) {
        files.push_back({path, false});
    }
    return files;
}

/// The last value of an option in a file; none if the file does not set it.
std::optional<std::string> valueIn(std::string const& path, std::string const& option)
{
    constexpr char blanks[] = " \t\r";
    std::optional<std::string> value;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        auto const end = line.find_first_of(blanks);
        if (end != std::string::npos &&
            strcasecmp(line.substr(0, end).c_str(), option.c_str()) == 0) {
            auto const begin = line.find_first_not_of(blanks, end);
            auto const last = line.find_last_not_of(blanks);
            value =
                begin == std::string::npos ? std::string() : line.substr(begin, last + 1 - begin);
        }
    }
    return value;
}

/// Names the origin of a value that the settings do not have.
/// @param option    OpenLDAP's name, as "TLS_CACERT"
/// @param value     in use; empty: any that is found
/// @param isOfUser  OpenLDAP ignores it in the host's file
std::string originIn(std::string const& option, std::string const& value, bool isOfUser)
{
    std::string const variable = "LDAP" + option;
    if (char const* const set = getenv(variable.c_str());
        set != nullptr && (value.empty() || value == set)) {
        return fmt::format("from {} in the environment", variable);
    }
    for (ConfigurationFile const& file : configurationFiles()) {
        auto const found = file.isOfUser || !isOfUser ? valueIn(file.path, option) : std::nullopt;
        if (found && (value.empty() || *found == value)) {
            return fmt::format("from {} in {}", option, file.path);
        }
    }
    return fmt::format("from OpenLDAP's {}", option);
}

/// Where the value of a policy's member comes from.
/// @param given  the setting; empty: none
/// @param used   the value in use, which is not empty
std::string originOf(std::string const& given, std::string const& used, char const* option,
                     bool isOfUser = false)
{
    return given.empty() ? originIn(option, used, isOfUser) : "from the settings";
}

// Files

struct FreeBytes {
    void operator()(unsigned char* bytes) const { gnutls_free(bytes); }
};

/// The first certificate of a PEM file; none if the file has none.
std::optional<Certificate> certificateOf(std::string const& path)
{
    std::string text = readFile("the certificate", path);
    gnutls_datum_t const pem = {reinterpret_cast<unsigned char*>(text.data()),
                                static_cast<unsigned int>(text.size())};
    gnutls_datum_t der = {nullptr, 0};
    if (gnutls_pem_base64_decode2("CERTIFICATE", &pem, &der) < 0) {
        return std::nullopt;
    }
    std::unique_ptr<unsigned char, FreeBytes> const owner(der.data);
    try {
        return Certificate(std::string(reinterpret_cast<char const*>(der.data), der.size));
    } catch (LDAPException const&) {
        return std::nullopt;
    }
}

/// A list of revoked certificates.
struct Revocations {
    std::string issuer;
    std::time_t thisUpdate;
    std::time_t nextUpdate; ///< -1: not named
};

/// Reads a PEM file of revocation lists. Returns GnuTLS's error below 0.
int readRevocations(std::string const& path, std::vector<Revocations>& lists)
{
    std::string text = readFile("the CRL file", path);
    gnutls_datum_t const pem = {reinterpret_cast<unsigned char*>(text.data()),
                                static_cast<unsigned int>(text.size())};
    gnutls_x509_crl_t* read = nullptr;
    unsigned int count = 0;
    int const error = gnutls_x509_crl_list_import2(&read, &count, &pem, GNUTLS_X509_FMT_PEM, 0);
    if (error < 0) {
        return error;
    }
    for (unsigned int i = 0; i < count; ++i) {
        gnutls_datum_t name = {nullptr, 0};
        gnutls_x509_crl_get_issuer_dn3(read[i], &name, 0);
        std::unique_ptr<unsigned char, FreeBytes> const owner(name.data);
        lists.push_back({std::string(reinterpret_cast<char const*>(name.data), name.size),
                         gnutls_x509_crl_get_this_update(read[i]),
                         gnutls_x509_crl_get_next_update(read[i])});
        gnutls_x509_crl_deinit(read[i]);
    }
    gnutls_free(read);
    return 0;
}

std::string daysUntil(std::time_t time)
{
    long const seconds = time - std::time(nullptr);
    long const days = std::abs(seconds) / secondsOfADay;
    return seconds < 0 ? fmt::format("{} days ago", days) : fmt::format("in {} days", days);
}

// Steps

void checkVerification(TlsPolicy const& policy, CheckReport& report)
{
    constexpr char step[] = "verification";
    switch (policy.verify) {
    case TlsVerify::none:
        report.warned(step, "none: any server is accepted, and gets the password; "
                            "from the settings");
        break;
    case TlsVerify::chain:
        report.passed(step, "chain: by a trusted authority, for any host; from the settings");
        break;
    case TlsVerify::full:
        report.passed(step, "full: by a trusted authority, for the host in -H");
        break;
    }
}

void checkVersion(TlsPolicy const& given, TlsVersion used, CheckReport& report)
{
    constexpr char step[] = "TLS version";
    constexpr char const* names[] = {"", "1.0", "1.1", "1.2", "1.3"};
    int configured = 0;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PROTOCOL_MIN, &configured);
    std::string const origin = given.minimumVersion != TlsVersion::configured ? "from the settings"
                               : configured == 0                              ? "default"
                                                 : originIn("TLS_PROTOCOL_MIN", "", false);
    std::string const text = fmt::format("{} or later; {}", names[static_cast<int>(used)], origin);
    if (used == TlsVersion::tls10 || used == TlsVersion::tls11) {
        report.warned(step, text + "; 1.0 and 1.1 are obsolete (RFC 8996)");
    } else {
        report.passed(step, text);
    }
}

struct FreePriority {
    void operator()(gnutls_priority_t priority) const { gnutls_priority_deinit(priority); }
};
using Priority = std::unique_ptr<gnutls_priority_st, FreePriority>;

/// Whether the ciphers can be used with the version or a later one.
bool allows(Priority const& ciphers, TlsVersion version)
{
    constexpr unsigned int protocols[] = {GNUTLS_TLS1_0, GNUTLS_TLS1_0, GNUTLS_TLS1_1,
                                          GNUTLS_TLS1_2, GNUTLS_TLS1_3};
    unsigned int const* listed = nullptr;
    int const count = gnutls_priority_protocol_list(ciphers.get(), &listed);
    return std::any_of(listed, listed + std::max(count, 0), [&](unsigned int protocol) {
        return protocol >= protocols[static_cast<int>(version)] && protocol <= GNUTLS_TLS1_3;
    });
}

/// What is weak in a priority string; empty if nothing is.
std::string weaknessOf(Priority const& ciphers, std::string const& text)
{
    constexpr unsigned int weak[] = {GNUTLS_CIPHER_NULL, GNUTLS_CIPHER_ARCFOUR_128,
                                     GNUTLS_CIPHER_3DES_CBC, GNUTLS_CIPHER_RC2_40_CBC,
                                     GNUTLS_CIPHER_DES_CBC};
    unsigned int const* listed = nullptr;
    int const count = gnutls_priority_cipher_list(ciphers.get(), &listed);
    auto const* const found =
        std::find_first_of(listed, listed + std::max(count, 0), std::begin(weak), std::end(weak));
    if (count > 0 && found != listed + count) {
        return fmt::format("it allows the weak cipher {}",
                           gnutls_cipher_get_name(static_cast<gnutls_cipher_algorithm_t>(*found)));
    }
    for (char const* const profile : {"%PROFILE_LOW", "%PROFILE_VERY_WEAK", "%PROFILE_LEGACY"}) {
        if (text.find(profile) != std::string::npos) {
            return "it accepts certificates with weak keys";
        }
    }
    return std::string();
}

void checkCiphers(TlsPolicy const& given, TlsPolicy const& used, CheckReport& report)
{
    constexpr char step[] = "ciphers";
    constexpr char remedy[] = "correct --tls-ciphers";
    std::string const& text = used.cipherSuite;
    if (text.empty()) {
        report.passed(step, "those of GnuTLS; default");
        return;
    }
    std::string const shown =
        fmt::format("{}; {}", text, originOf(given.cipherSuite, text, "TLS_CIPHER_SUITE"));
    gnutls_priority_t read = nullptr;
    char const* position = nullptr;
    if (gnutls_priority_init(&read, text.c_str(), &position) < 0) {
        report.failed(step, Outcome::configuration,
                      fmt::format("{}; not a valid GnuTLS priority string, error at '{}'", shown,
                                  position == nullptr ? "" : position),
                      remedy);
        return;
    }
    Priority const ciphers(read);
    std::string const weakness = weaknessOf(ciphers, text);
    if (!allows(ciphers, used.minimumVersion)) {
        report.failed(step, Outcome::configuration,
                      shown + "; it excludes every version that --tls-min allows",
                      "correct --tls-ciphers or --tls-min");
    } else if (!weakness.empty()) {
        report.warned(step, fmt::format("{}; {}", shown, weakness));
    } else {
        report.passed(step, shown);
    }
}

/// Where the authorities come from.
std::string originOfAuthorities(TlsPolicy const& given, TlsPolicy const& used)
{
    bool const isGiven = !given.caFile.empty() || !given.caFolder.empty();
    auto const isConfigured = [](int option) {
        LDAPCharBuffer text;
        ldap_get_option(nullptr, option, text.address());
        return text.get() != nullptr && *text.get() != '\0';
    };
    if (isGiven) {
        return "from the settings";
    }
    std::string origin;
    if (isConfigured(LDAP_OPT_X_TLS_CACERTFILE)) {
        origin = originIn("TLS_CACERT", used.caFile, false);
    }
    if (isConfigured(LDAP_OPT_X_TLS_CACERTDIR)) {
        origin += (origin.empty() ? "" : ", ") + originIn("TLS_CACERTDIR", used.caFolder, false);
    }
    return origin.empty() ? "the system's; default" : origin;
}

void checkAuthorities(TlsPolicy const& given, TlsPolicy const& used, CheckReport& report)
{
    constexpr char step[] = "authorities";
    if (used.verify == TlsVerify::none) {
        report.skipped(step, "not used with --tls-verify none");
        return;
    }
    TlsPolicy alone = given;
    alone.verify = TlsVerify::chain;
    Lookup::Verdict const verdict = TlsContext(alone).verdict();
    for (char const* const role : {"the CA ", "the system's CA "}) { // read before any other file
        if (verdict.text.rfind(role, 0) == 0) {
            report.failed(step, Outcome::configuration, verdict.text, remedyFor(verdict));
            return;
        }
    }
    std::vector<std::string> places;
    gnutls_certificate_credentials_t trusted = nullptr;
    if (gnutls_certificate_allocate_credentials(&trusted) < 0) {
        return;
    }
    int count = 0;
    if (!used.caFile.empty()) {
        places.push_back(used.caFile);
        count += std::max(0, gnutls_certificate_set_x509_trust_file(trusted, used.caFile.c_str(),
                                                                    GNUTLS_X509_FMT_PEM));
    }
    if (!used.caFolder.empty()) {
        places.push_back(used.caFolder);
        count += std::max(0, gnutls_certificate_set_x509_trust_dir(trusted, used.caFolder.c_str(),
                                                                   GNUTLS_X509_FMT_PEM));
    }
    gnutls_certificate_free_credentials(trusted);
    auto const only = count == 1 && used.caFolder.empty() ? certificateOf(used.caFile)
                                                          : std::optional<Certificate>();
    std::string const content =
        only ? fmt::format("{}, {}", only->subject(), expiryOf(only->notAfter()))
             : fmt::format("{} certificates", count);
    std::string const text =
        fmt::format("{}: {}; {}", joined(places, ", "), content, originOfAuthorities(given, used));
    if (only && endsSoon(only->notAfter())) {
        report.warned(step, text);
    } else {
        report.passed(step, text);
    }
}

void checkRevocations(TlsPolicy const& given, TlsPolicy const& used, CheckReport& report)
{
    constexpr char step[] = "revocations";
    constexpr char remedy[] = "correct --tls-crl";
    std::string const& file = used.crlFile;
    if (file.empty() || used.verify == TlsVerify::none) {
        report.skipped(step, file.empty() ? "no revocation list is set"
                                          : "not used with --tls-verify none");
        return;
    }
    std::vector<Revocations> lists;
    try {
        int const error = readRevocations(file, lists);
        if (error < 0) {
            report.failed(step, Outcome::configuration,
                          fmt::format("the CRL file '{}' contains no usable revocation lists: {}",
                                      file, gnutls_strerror(error)),
                          remedy);
            return;
        }
    } catch (Failure const& failure) {
        report.failed(step, Outcome::configuration, failure.cause(), remedy);
        return;
    }
    bool isUsable = true;
    std::string text;
    for (Revocations const& list : lists) {
        bool const isOld = list.nextUpdate != -1 && list.nextUpdate < std::time(nullptr);
        bool const isEarly = list.thisUpdate > std::time(nullptr);
        isUsable = isUsable && !isOld && !isEarly;
        text += fmt::format("{} list of {}, of {}", text.empty() ? "" : ",", list.issuer,
                            daysUntil(list.thisUpdate));
        if (list.nextUpdate != -1) {
            text += fmt::format(", next update {}", daysUntil(list.nextUpdate));
        }
        if (isOld) {
            text += ": out of date, later revocations are not known";
        }
        if (isEarly) {
            text += ": dated in the future";
        }
    }
    text = fmt::format("{}:{}; {}", file, text, originOf(given.crlFile, file, "TLS_CRLFILE"));
    if (isUsable) {
        report.passed(step, text);
    } else {
        report.warned(step, text);
    }
}

bool isOpenToAll(std::string const& file)
{
    struct stat status = {};
    return stat(file.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0;
}

void checkClientCertificate(TlsPolicy const& given, CheckReport& report)
{
    constexpr char step[] = "client cert";
    TlsPolicy alone = given;
    alone.verify = TlsVerify::none; // faults of other files belong to other steps
    alone.cipherSuite = "NORMAL";
    TlsContext const context(alone);
    std::string const& file = context.policy().certificateFile;
    std::string const& key = context.policy().keyFile;
    if (file.empty() && key.empty()) {
        report.skipped(step, "none is set");
        return;
    }
    if (!context.verdict().isGood()) {
        report.failed(step, Outcome::configuration, context.verdict().text,
                      remedyFor(context.verdict()));
        return;
    }
    auto const certificate = certificateOf(file);
    if (!certificate) {
        report.warned(step, fmt::format("'{}' has no certificate to show", file));
        return;
    }
    std::string const origin = originOf(given.certificateFile, file, "TLS_CERT", true);
    std::string const originOfKey = originOf(given.keyFile, key, "TLS_KEY", true);
    bool const isEarly = certificate->notBefore() > std::time(nullptr);
    bool const isKeyOpen = isOpenToAll(key);
    std::string const text = fmt::format(
        "{}, {}, fits its key; {}{}{}{}", certificate->subject(), expiryOf(certificate->notAfter()),
        origin, originOfKey == origin ? std::string() : ", the key " + originOfKey,
        isEarly ? "; not valid yet" : "",
        isKeyOpen ? "; every user of this host can read the key" : "");
    if (isEarly || isKeyOpen || endsSoon(certificate->notAfter())) {
        report.warned(step, text);
    } else {
        report.passed(step, text);
    }
}

} // namespace

std::string expiryOf(std::time_t end)
{
    return (end < std::time(nullptr) ? "expired " : "expires ") + daysUntil(end);
}

bool endsSoon(std::time_t end) { return end - std::time(nullptr) < daysOfWarning * secondsOfADay; }

std::vector<std::string> issuersOfRevocations(std::string const& file)
{
    std::vector<Revocations> lists;
    std::vector<std::string> issuers;
    try {
        readRevocations(file, lists);
    } catch (Failure const&) { // the step "revocation" of the settings tells of it
    }
    std::transform(lists.begin(), lists.end(), std::back_inserter(issuers),
                   [](Revocations const& list) { return list.issuer; });
    return issuers;
}

void checkTls(TlsPolicy const& policy, CheckReport& report)
{
    TlsPolicy const used = TlsContext(policy).policy();
    checkVerification(used, report);
    checkVersion(policy, used.minimumVersion, report);
    checkCiphers(policy, used, report);
    checkAuthorities(policy, used, report);
    checkRevocations(policy, used, report);
    checkClientCertificate(policy, report);
}

} // namespace Solvane::Tool
