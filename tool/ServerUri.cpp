// Parses server URIs with OpenLDAP, and checks what its parser accepts.
#include "ServerUri.h"

#include "OpenLDAP.h"
#include "Outcome.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <type_traits>

namespace Solvane::Tool {

namespace {

struct FreeUrl {
    void operator()(LDAPURLDesc* url) const { ldap_free_urldesc(url); }
};
using Url = std::unique_ptr<LDAPURLDesc, FreeUrl>;

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

Url parse(std::string const& text)
{
    LDAPURLDesc* parsed = nullptr;
    int const rc = ldap_url_parse(text.c_str(), &parsed);
    Url url(parsed);
    if (rc == LDAP_URL_ERR_BADSCHEME) {
        refuse(fmt::format("'{}' is not an LDAP URI", text), "write ldap://host or ldaps://host");
    }
    if (rc != LDAP_URL_SUCCESS) {
        refuse(fmt::format("malformed URI '{}'", text),
               "write ldap://host:port, or ldap://[::1]:389 for an IPv6 address");
    }
    return url;
}

bool isEmpty(char const* text) { return text == nullptr || *text == '\0'; }

/// The authority of a URI: the text between "://" and the next "/" or "?".
std::string_view authorityOf(std::string_view uri)
{
    std::string_view const rest = uri.substr(uri.find("://") + 3);
    return rest.substr(0, rest.find_first_of("/?"));
}

/// The port, parsed from its digits: OpenLDAP accepts signs and wraps numbers that are too large.
unsigned int portOf(std::string_view authority, bool isSecure)
{
    auto const bracket = authority.rfind(']');
    auto const colon = authority.find(':', bracket == std::string_view::npos ? 0 : bracket);
    if (colon == std::string_view::npos) {
        return isSecure ? LDAPS_PORT : LDAP_PORT;
    }
    std::string_view const digits = authority.substr(colon + 1);
    bool const isNumber = !digits.empty() && digits.size() <= 5 &&
                          std::all_of(digits.begin(), digits.end(),
                                      [](char digit) { return digit >= '0' && digit <= '9'; });
    unsigned long const port = isNumber ? std::stoul(std::string(digits)) : 0;
    if (port < 1 || port > 65535) {
        refuse(fmt::format("invalid port '{}'", digits),
               "write a number from 1 to 65535, and an IPv6 address in brackets");
    }
    return static_cast<unsigned int>(port);
}

/// The domain of a DN of "dc" parts only, as "example.com"; empty for any other DN.
std::string domainOf(char const* dn)
{
    LDAPDN parsed = nullptr;
    if (isEmpty(dn) || ldap_str2dn(dn, &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) {
        return {};
    }
    std::unique_ptr<std::remove_pointer_t<LDAPDN>, void (*)(LDAPDN)> const owner(parsed,
                                                                                 ldap_dnfree);
    std::string domain;
    for (LDAPDN part = parsed; part != nullptr && *part != nullptr; ++part) {
        LDAPAVA const& first = ***part;
        std::string_view const name(first.la_attr.bv_val, first.la_attr.bv_len);
        bool const isPart = name.size() == 2 && (name[0] | 0x20) == 'd' &&
                            (name[1] | 0x20) == 'c' && (*part)[1] == nullptr &&
                            first.la_value.bv_len != 0;
        if (!isPart) {
            return {};
        }
        domain += domain.empty() ? "" : ".";
        domain.append(first.la_value.bv_val, first.la_value.bv_len);
    }
    return domain;
}

/// The path of a UNIX socket, which a URI has in the place of a host.
std::string socketPathOf(std::string const& uri, char const* path)
{
    if (isEmpty(path)) {
        return "/var/run/slapd/ldapi"; // OpenLDAP's
    }
    bool const hasPort = authorityOf(uri).find(':') != std::string_view::npos;
    if (*path != '/' || hasPort || faultIn(path)) {
        refuse(fmt::format("'{}' has no valid path of a socket", uri),
               "write an absolute path with %2F for '/', as in ldapi://%2Frun%2Fslapd%2Fldapi");
    }
    return path;
}

/// Removes "ldap+srv:" or "ldaps+srv:" from a URI. Returns false for any other scheme.
bool namesDomain(std::string const& text, bool& isSecure, std::string& rest)
{
    std::string scheme = text.substr(0, text.find(':'));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    });
    isSecure = scheme == "ldaps+srv";
    if (!isSecure && scheme != "ldap+srv") {
        return false;
    }
    rest = text.substr(std::min(text.size(), scheme.size() + 1));
    return true;
}

std::string srvDomainOf(std::string const& text, std::string const& rest)
{
    constexpr char remedy[] = "write ldap+srv:///dc=example,dc=com";
    if (rest.rfind("///", 0) != 0 || rest.find('?') != std::string::npos) {
        refuse(fmt::format("'{}' has more than a domain", text), remedy);
    }
    std::string domain = domainOf(parse("ldap:" + rest)->lud_dn);
    if (domain.empty() || faultIn(domain) || domain.find_first_of(" /") != std::string::npos) {
        refuse(fmt::format("'{}' has no valid domain", text), remedy);
    }
    return domain;
}

} // namespace

ServerUri ServerUri::fromHost(std::string const& text, unsigned int port)
{
    if (text.find("://") != std::string::npos) {
        return ServerUri(text);
    }
    // More than one colon and no bracket: a bare IPv6 address.
    bool const isBareAddress =
        text.find('[') == std::string::npos && text.find(':') != text.rfind(':');
    std::string const host = isBareAddress ? '[' + text + ']' : text;
    ServerUri uri("ldap://" + host);
    if (host.find(':', host.find(']') == std::string::npos ? 0 : host.find(']')) ==
        std::string::npos) {
        uri.port = port;
    }
    return uri;
}

ServerUri::ServerUri(std::string const& text)
{
    // Checked first, so that no message shows a password before the '@'.
    if (text.find('@') != std::string::npos) {
        refuse("a server URI must not contain '@'",
               "give the user with -D and the password with -W or -y");
    }
    if (faultIn(text)) {
        refuse("the URI contains control characters or invalid UTF-8",
               "write ldap://host or ldaps://host");
    }
    if (std::string rest; namesDomain(text, isSecure, rest)) {
        srvDomain = srvDomainOf(text, rest);
        return;
    }
    Url const url = parse(text);
    std::string_view const scheme = url->lud_scheme;
    if (scheme != "ldap" && scheme != "ldaps" && scheme != "ldapi") {
        refuse(fmt::format("unsupported scheme '{}'", scheme), "write ldap://host or ldaps://host");
    }
    isSecure = scheme == "ldaps";
    bool const hasMore = text.find('?') != std::string::npos || !isEmpty(url->lud_dn);
    if (hasMore) {
        refuse(fmt::format("'{}' has more than scheme, host and port", text),
               "give base, attributes, scope and filter with -b, --attrs, -s and -t");
    }
    if (scheme == "ldapi") {
        socketPath = socketPathOf(text, url->lud_host);
        return;
    }
    if (isEmpty(url->lud_host)) {
        refuse(fmt::format("'{}' has no host", text), "write ldap://host or ldaps://host");
    }
    host = url->lud_host;
    if (host.find('%') != std::string::npos) {
        refuse(fmt::format("the address '{}' has a zone", host),
               "write the address without the zone");
    }
    port = portOf(authorityOf(text), isSecure);
}

} // namespace Solvane::Tool
