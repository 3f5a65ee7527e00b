// Loads the files and settings of a TLS policy.
#include "TlsState.h"

#include <solvane/session/PlainText.h>

#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "CertificateFaults.h"
#include "OpenLDAP.h"
#include "ProcessDefaults.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <unistd.h>

namespace Solvane::Lookup {

namespace {

/// Where distributions install their bundle of trusted authorities, as one PEM file.
constexpr char const* systemBundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/ssl/ca-bundle.pem",
    "/etc/ssl/cert.pem",
};

/// A process-wide OpenLDAP setting; empty if it is not set.
std::string configured(int option)
{
    LDAPCharBuffer text;
    std::lock_guard<std::mutex> const lock(processDefaults());
    ldap_get_option(nullptr, option, text.address());
    return text.get() == nullptr ? std::string() : std::string(text.get());
}

/// OpenLDAP's cipher suite is in the language of its TLS library, which may be another: Debian 13 has
/// OpenSSL there.
std::string configuredCiphers()
{
    return configured(LDAP_OPT_X_TLS_PACKAGE) == "GnuTLS" ? configured(LDAP_OPT_X_TLS_CIPHER_SUITE)
                                                          : std::string();
}

void addConfigured(std::string& setting, int option)
{
    if (setting.empty()) {
        setting = configured(option);
    }
}

std::string systemBundle()
{
    for (char const* const bundle : systemBundles) {
        if (access(bundle, R_OK) == 0) {
            return bundle;
        }
    }
    return std::string();
}

/// OpenLDAP uses the protocol's version numbers: 3.3 is TLS 1.2.
TlsVersion configuredVersion()
{
    int version = 0;
    std::unique_lock<std::mutex> lock(processDefaults());
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PROTOCOL_MIN, &version);
    lock.unlock();
    switch (version) {
    case 0:
    case LDAP_OPT_X_TLS_PROTOCOL_TLS1_2:
        return TlsVersion::tls12;
    case LDAP_OPT_X_TLS_PROTOCOL_TLS1_1:
        return TlsVersion::tls11;
    default:
        return version < LDAP_OPT_X_TLS_PROTOCOL_TLS1_1 ? TlsVersion::tls10 : TlsVersion::tls13;
    }
}

/// The suffix of a priority string that disables all versions below `version`.
char const* withoutVersionsBelow(TlsVersion version)
{
    switch (version) {
    case TlsVersion::tls10:
        return ":-VERS-SSL3.0";
    case TlsVersion::tls11:
        return ":-VERS-SSL3.0:-VERS-TLS1.0";
    case TlsVersion::tls13:
        return ":-VERS-SSL3.0:-VERS-TLS1.0:-VERS-TLS1.1:-VERS-TLS1.2";
    default:
        return ":-VERS-SSL3.0:-VERS-TLS1.0:-VERS-TLS1.1";
    }
}

std::string quoted(std::string const& file) { return '\'' + oneLine(file) + '\''; }

/// Whether a priority string sets its own minimum strength for keys and signatures of certificates.
bool tellsStrength(std::string const& suite)
{
    constexpr char const* words[] = {"%PROFILE", "SECURE192", "SECURE256", "SUITEB"};
    return std::any_of(std::begin(words), std::end(words), [&suite](char const* word) {
        return suite.find(word) != std::string::npos;
    });
}

} // namespace

std::string TlsPolicy::authorities() const
{
    if (!caFile.empty() || !caFolder.empty()) {
        return caFile.empty() ? caFolder : caFile;
    }
    std::string file = configured(LDAP_OPT_X_TLS_CACERTFILE);
    if (!file.empty()) {
        return file;
    }
    std::string folder = configured(LDAP_OPT_X_TLS_CACERTDIR);
    return folder.empty() ? systemBundle() : folder;
}

TlsContext::State::State(TlsPolicy const& asked) : policy(asked)
{
    addConfigured();
    int const error = gnutls_certificate_allocate_credentials(&credentials);
    if (error < 0) {
        refuse("TLS", gnutls_strerror(error));
        return;
    }
    readAuthorities();
    readRevocations();
    readClientCertificate();
    readCiphers();
}

TlsContext::State::~State()
{
    if (credentials != nullptr) {
        gnutls_certificate_free_credentials(credentials);
    }
    if (priority != nullptr) {
        gnutls_priority_deinit(priority);
    }
}

void TlsContext::State::addConfigured()
{
    if (policy.caFile.empty() && policy.caFolder.empty()) { // else only these are trusted
        Lookup::addConfigured(policy.caFile, LDAP_OPT_X_TLS_CACERTFILE);
        Lookup::addConfigured(policy.caFolder, LDAP_OPT_X_TLS_CACERTDIR);
    }
    Lookup::addConfigured(policy.crlFile, LDAP_OPT_X_TLS_CRLFILE);
    if (policy.cipherSuite.empty()) {
        policy.cipherSuite = configuredCiphers();
    }
    Lookup::addConfigured(policy.certificateFile, LDAP_OPT_X_TLS_CERTFILE);
    Lookup::addConfigured(policy.keyFile, LDAP_OPT_X_TLS_KEYFILE);
    if (policy.minimumVersion == TlsVersion::configured) {
        policy.minimumVersion = configuredVersion();
    }
    if (policy.caFile.empty() && policy.caFolder.empty()) {
        policy.caFile = systemBundle();
    }
}

void TlsContext::State::readAuthorities()
{
    if (policy.verify == TlsVerify::none) {
        return;
    }
    if (policy.caFile.empty() && policy.caFolder.empty()) {
        refuse("the system's CA bundle",
               "is missing; install the package ca-certificates, or set a CA file");
    }
    if (!policy.caFile.empty()) {
        std::string const fault = faultOf(policy.caFile, "certificates", [this](char const* file) {
            return gnutls_certificate_set_x509_trust_file(credentials, file, GNUTLS_X509_FMT_PEM);
        });
        refuse("the CA file " + quoted(policy.caFile), fault);
    }
    if (!policy.caFolder.empty()) {
        std::string const fault =
            faultOf(policy.caFolder, "certificates", [this](char const* folder) {
                return gnutls_certificate_set_x509_trust_dir(credentials, folder,
                                                             GNUTLS_X509_FMT_PEM);
            });
        refuse("the CA folder " + quoted(policy.caFolder), fault);
    }
}

void TlsContext::State::readRevocations()
{
    if (policy.verify == TlsVerify::none || policy.crlFile.empty()) {
        return;
    }
    std::string const fault = faultOf(policy.crlFile, "revocation lists", [this](char const* file) {
        return gnutls_certificate_set_x509_crl_file(credentials, file, GNUTLS_X509_FMT_PEM);
    });
    refuse("the CRL file " + quoted(policy.crlFile), fault);
}

void TlsContext::State::readClientCertificate()
{
    if (policy.certificateFile.empty() && policy.keyFile.empty()) {
        return;
    }
    if (policy.certificateFile.empty() || policy.keyFile.empty()) {
        bool const lacksKey = policy.keyFile.empty();
        refuse("the client certificate",
               lacksKey ? "has no key: set the key file, too"
                        : "is missing: a key file is set without a certificate file");
        return;
    }
    for (std::string const& file : {policy.certificateFile, policy.keyFile}) {
        std::string const fault = unreadable(file);
        if (!fault.empty()) {
            bool const isKey = file == policy.keyFile;
            refuse((isKey ? "the key file " : "the certificate file ") + quoted(file), fault);
            return;
        }
    }
    int const error = gnutls_certificate_set_x509_key_file(
        credentials, policy.certificateFile.c_str(), policy.keyFile.c_str(), GNUTLS_X509_FMT_PEM);
    if (error < 0) {
        refuse("the client certificate " + quoted(policy.certificateFile) + " with the key " +
                   quoted(policy.keyFile),
               std::string("cannot be used: ") + gnutls_strerror(error));
    }
}

void TlsContext::State::readCiphers()
{
    std::string limit = withoutVersionsBelow(policy.minimumVersion);
    if (!tellsStrength(policy.cipherSuite)) {
        limit += ":%PROFILE_MEDIUM"; // 112 bits: no RSA below 2048, no SHA-1
    }
    char const* position = nullptr;
    bool const isDefault = policy.cipherSuite.empty();
    std::string const wanted = isDefault ? limit.substr(1) : policy.cipherSuite + limit;
    int const error = gnutls_priority_init2(&priority, wanted.c_str(), &position,
                                            isDefault ? GNUTLS_PRIORITY_INIT_DEF_APPEND : 0);
    if (error < 0) {
        priority = nullptr;
        refuse("the cipher suite " + quoted(policy.cipherSuite),
               std::string("is not a valid GnuTLS priority string") +
                   (position == nullptr ? "" : ", error at '" + oneLine(position) + '\''));
    }
}

/// Records a fault; the first one is kept. An empty `why` means no fault.
void TlsContext::State::refuse(std::string const& what, std::string const& why)
{
    if (verdict.isGood() && !why.empty()) {
        verdict = Verdict{Outcome::Misconfigured, LDAP_PARAM_ERROR, what + ' ' + why};
    }
}

// These calls never block on the lock. In a child forked while another thread held it, the lock is
// never released. Without it, the session is not resumed: a full handshake takes place instead.

ResumableTls TlsContext::State::recall(std::string const& server) const
{
    std::unique_lock<std::mutex> const lock(m_mutex, std::try_to_lock);
    if (!lock) {
        return ResumableTls();
    }
    auto const found = m_resumable.find(server);
    return found == m_resumable.end() ? ResumableTls() : found->second;
}

void TlsContext::State::remember(std::string const& server, ResumableTls session)
{
    std::unique_lock<std::mutex> const lock(m_mutex, std::try_to_lock);
    if (lock) {
        std::swap(m_resumable[server], session);
    }
}

TlsContext::TlsContext(TlsPolicy const& policy) : m_state(std::make_unique<State>(policy)) {}
TlsContext::~TlsContext() = default;

Verdict const& TlsContext::verdict() const { return m_state->verdict; }
TlsPolicy const& TlsContext::policy() const { return m_state->policy; }

} // namespace Solvane::Lookup
