// Reads the first certificate of a PEM file; a TLS context tries it together with its key.
#include "ClientCertificate.h"

#include "Files.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/session/Certificate.h>
#include <solvane/session/TlsContext.h>

#include <fmt/format.h>
#include <gnutls/gnutls.h>

#include <cstdlib>
#include <ctime>
#include <optional>

namespace Solvane::Tool {

using Lookup::Certificate;
using Lookup::TlsContext;
using Lookup::TlsPolicy;

namespace {

constexpr char step[] = "client cert";
constexpr long secondsOfADay = 86400;
constexpr long daysOfWarning = 14;

/// The first certificate of a PEM file; none if the file has none.
std::optional<Certificate> certificateOf(std::string const& path)
{
    std::string text = readFile("the client certificate", path);
    gnutls_datum_t const pem = {reinterpret_cast<unsigned char*>(text.data()),
                                static_cast<unsigned int>(text.size())};
    gnutls_datum_t der = {nullptr, 0};
    if (gnutls_pem_base64_decode2("CERTIFICATE", &pem, &der) < 0) {
        return std::nullopt;
    }
    std::string const bytes(reinterpret_cast<char const*>(der.data), der.size);
    gnutls_free(der.data);
    try {
        return Certificate(bytes);
    } catch (LDAPException const&) {
        return std::nullopt;
    }
}

} // namespace

std::string expiryOf(std::time_t end)
{
    long const seconds = end - std::time(nullptr);
    long const days = std::abs(seconds) / secondsOfADay;
    return seconds < 0 ? fmt::format("expired {} days ago", days)
                       : fmt::format("expires in {} days", days);
}

bool endsSoon(std::time_t end) { return end - std::time(nullptr) < daysOfWarning * secondsOfADay; }

void checkClientCertificate(TlsPolicy const& policy, CheckReport& report)
{
    TlsPolicy alone = policy;
    alone.verify = Lookup::TlsVerify::none; // faults of other files belong to other steps
    alone.cipherSuite = "NORMAL";
    TlsContext const context(alone);
    std::string const& file = context.policy().certificateFile;
    if (file.empty() && context.policy().keyFile.empty()) {
        return;
    }
    if (!context.verdict().isGood()) {
        report.failed(step, Outcome::configuration, context.verdict().text,
                      "correct --tls-cert and --tls-key");
        return;
    }
    auto const certificate = certificateOf(file);
    if (!certificate) {
        report.warned(step, fmt::format("'{}' has no certificate to show", file));
        return;
    }
    std::string const text = fmt::format("{}, {}, fits its key", certificate->subject(),
                                         expiryOf(certificate->notAfter()));
    bool const isEarly = certificate->notBefore() > std::time(nullptr);
    if (isEarly) {
        report.warned(step, text + ", not valid yet");
    } else if (endsSoon(certificate->notAfter())) {
        report.warned(step, text);
    } else {
        report.passed(step, text);
    }
}

} // namespace Solvane::Tool
