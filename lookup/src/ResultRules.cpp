// Formats of results, roles of attributes, and the searches that DNs and LDAP URLs stand for.
#include "ResultRules.h"

#include <solvane/session/PlainText.h>

#include <solvane/ldap/impl/OpenLDAPOwners.h>
#include <solvart/StringHelpers.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <utility>

#include <arpa/inet.h>
#include <ldap.h>
#include <netinet/in.h>
#include <strings.h>

namespace Solvane::Lookup {

namespace {

void releaseDn(LDAPRDN* dn) { ldap_dnfree(dn); }
void releaseUrl(LDAPURLDesc* url) { ldap_free_urldesc(url); }

class DnBuffer : public OpenLDAPOwner<LDAPRDN, releaseDn> {};
class UrlBuffer : public OpenLDAPOwner<LDAPURLDesc, releaseUrl> {};

bool isSame(std::string const& left, std::string const& right)
{
    return stringCompareNoCase(left, right, 0) == 0;
}

/// An address split at its last "@".
struct Parts {
    explicit Parts(std::string_view text) : whole(text), user(text)
    {
        auto const at = text.rfind('@');
        if (at != std::string_view::npos) {
            user = text.substr(0, at);
            domain = text.substr(at + 1);
        }
    }

    /// The n-th label of the domain from the right, from 1; empty if there are fewer.
    std::string_view label(int n) const
    {
        std::string_view rest = domain;
        while (!rest.empty()) {
            auto const dot = rest.rfind('.');
            auto const begin = dot == std::string_view::npos ? 0 : dot + 1;
            std::string_view const last = rest.substr(begin);
            if (!last.empty() && --n == 0) {
                return last;
            }
            rest = rest.substr(0, begin == 0 ? 0 : begin - 1);
        }
        return {};
    }

    std::string_view whole;
    std::string_view user; ///< all of it if there is no "@"
    std::string_view domain;
};

/// What a specifier inserts; empty if the key or the value lacks it.
std::string_view inserted(char specifier, Parts const& value, Parts const& key)
{
    switch (specifier) {
    case 's':
        return value.whole;
    case 'u':
        return value.user;
    case 'd':
        return value.domain;
    case 'S':
        return key.whole;
    case 'U':
        return key.user;
    case 'D':
        return key.domain;
    default:
        return key.label(specifier - '0');
    }
}

bool isOfValue(char specifier)
{
    return std::string_view("sud").find(specifier) != std::string_view::npos;
}

/// What a specifier inserts, in words.
std::string nameOf(char specifier)
{
    switch (specifier) {
    case 's':
    case 'S':
        return "text";
    case 'u':
    case 'U':
        return "user";
    case 'd':
    case 'D':
        return "domain";
    default:
        return std::string("label ") + specifier + " of a domain";
    }
}

/// The text with each special character of filters (RFC 4515) and of DNs (RFC 4514) as `\NN`, which
/// both allow for every character.
std::string escaped(std::string_view text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    constexpr std::string_view special = "*()\\,+\"<>;=# "; // keys have no control characters
    std::string out;
    for (char const character : text) {
        if (special.find(character) == std::string_view::npos) {
            out += character;
            continue;
        }
        auto const byte = static_cast<unsigned char>(character);
        out.append({'\\', digits[byte >> 4], digits[byte & 0x0F]});
    }
    return out;
}

/// A text that is the same for all ways to write a server's host: in any case, with the dot of the
/// root, an IPv6 address in any form. The path of a socket stays as it is.
std::string normalizedHost(std::string const& host)
{
    if (!host.empty() && host.front() == '/') {
        return host;
    }
    std::array<unsigned char, sizeof(in6_addr)> address{};
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_pton(AF_INET6, host.c_str(), address.data()) == 1 &&
        inet_ntop(AF_INET6, address.data(), text.data(), text.size()) != nullptr) {
        return text.data();
    }
    std::string name = copyStringToLower(host);
    if (name.size() > 1 && name.back() == '.') {
        name.pop_back();
    }
    return name;
}

constexpr std::string_view optionName = ";range=";

/// Where the option "range" begins; npos if there is none.
std::size_t rangeOption(std::string_view text)
{
    auto at = text.find(';');
    while (at != std::string_view::npos &&
           (text.size() - at < optionName.size() ||
            strncasecmp(text.data() + at, optionName.data(), optionName.size()) != 0)) {
        at = text.find(';', at + 1);
    }
    return at;
}

/// The description without the option "range".
std::string withoutRange(std::string const& description)
{
    auto const range = ValueRange::in(description);
    return range ? range->name : description;
}

/// The type of a description, without options.
std::string typeOf(std::string const& description)
{
    return description.substr(0, description.find(';'));
}

Verdict invalid(int code, std::string const& text) { return {Outcome::Misconfigured, code, text}; }

/// One part of an RDN; the lengths keep different ones apart.
std::string textOf(LDAPAVA const& part)
{
    std::string name = copyStringToLower({part.la_attr.bv_val, part.la_attr.bv_len});
    std::string_view const value =
        part.la_value.bv_len == 0 ? std::string_view()
                                  : std::string_view(part.la_value.bv_val, part.la_value.bv_len);
    return name.append(1, '=').append(std::to_string(value.size())).append(1, ':').append(value);
}

} // namespace

// ResultFormat

std::string ResultFormat::faultOf(std::string const& text)
{
    for (auto at = text.find('%'); at != std::string::npos; at = text.find('%', at + 2)) {
        if (at + 1 == text.size()) {
            return "ends with a single %; write %% for a percent sign";
        }
        if (std::string_view("%sudSUD123456789").find(text[at + 1]) == std::string_view::npos) {
            return "contains the unknown specifier %" + text.substr(at + 1, 1);
        }
    }
    return std::string();
}

ResultFormat::ResultFormat(std::string const& text, bool lowersKeys) : m_lowersKeys(lowersKeys)
{
    std::string literal;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%' || text[++at] == '%') {
            literal += text[at];
            continue;
        }
        m_pieces.push_back({'\0', std::exchange(literal, std::string()), 0});
        m_pieces.push_back({text[at], std::string(), at - 1});
    }
    m_pieces.push_back({'\0', literal, 0});
}

std::string ResultFormat::keyOf(std::string_view key) const
{
    return m_lowersKeys ? copyStringToLower(std::string(key)) : std::string(key);
}

std::string ResultFormat::lackOf(std::string_view key) const
{
    Parts const parts(key);
    for (Piece const& piece : m_pieces) {
        char const specifier = piece.specifier;
        if (specifier == '\0' || isOfValue(specifier) ||
            !inserted(specifier, Parts({}), parts).empty()) {
            continue;
        }
        return nameOf(specifier);
    }
    return std::string();
}

std::string ResultFormat::lackForKey(std::string_view key) const
{
    Parts const parts(key);
    for (Piece const& piece : m_pieces) {
        if (piece.specifier != '\0' && inserted(piece.specifier, parts, parts).empty()) {
            return nameOf(piece.specifier);
        }
    }
    return std::string();
}

std::string ResultFormat::forKey(std::string_view key) const
{
    std::string const whole = keyOf(key);
    Parts const parts(whole);
    std::string text;
    for (Piece const& piece : m_pieces) {
        text += piece.specifier == '\0' ? piece.literal
                                        : escaped(inserted(piece.specifier, parts, parts));
    }
    return text;
}

std::vector<ResultFormat::Insertion> ResultFormat::insertionsForKey(std::string_view key) const
{
    std::string const whole = keyOf(key);
    Parts const parts(whole);
    std::vector<Insertion> insertions;
    for (Piece const& piece : m_pieces) {
        if (piece.specifier != '\0') {
            insertions.push_back({piece.position, piece.specifier,
                                  escaped(inserted(piece.specifier, parts, parts))});
        }
    }
    return insertions;
}

std::optional<std::string> ResultFormat::of(std::string_view value, std::string_view key) const
{
    if (value.empty()) {
        return std::nullopt;
    }
    Parts const valueParts(value);
    std::string const whole = keyOf(key);
    Parts const keyParts(whole);
    std::string text;
    for (Piece const& piece : m_pieces) {
        if (piece.specifier == '\0') {
            text += piece.literal;
            continue;
        }
        std::string_view const part = inserted(piece.specifier, valueParts, keyParts);
        if (part.empty()) {
            return std::nullopt;
        }
        text += part;
    }
    return text;
}

// ValueRange

bool ValueRange::isIn(std::string_view text) { return rangeOption(text) != std::string_view::npos; }

std::optional<ValueRange> ValueRange::in(std::string const& description)
{
    auto const at = rangeOption(description);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    char const* const begin = description.c_str() + at + optionName.size();
    char const* const end =
        description.c_str() + std::min(description.find(';', at + 1), description.size());
    ValueRange range;
    auto const first = std::from_chars(begin, end, range.begin);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != '-') {
        return std::nullopt;
    }
    std::string_view const rest(first.ptr + 1, static_cast<std::size_t>(end - first.ptr - 1));
    range.isLast = rest == "*";
    auto const last = std::from_chars(first.ptr + 1, end, range.end);
    constexpr auto most = std::numeric_limits<std::size_t>::max();
    if (!range.isLast && (last.ec != std::errc() || last.ptr != end || range.end < range.begin ||
                          range.end == most)) {
        return std::nullopt;
    }
    range.name = description.substr(0, at) + end;
    return range;
}

// ResultRules

ResultRules::ResultRules(Settings const& settings)
    : m_request{{}, LDAP_SCOPE_BASE, settings.deref, {}, settings.entryLimit, settings.timeLimit},
      m_format(settings.resultFormat.empty() ? "%s" : settings.resultFormat, settings.postfixRules),
      m_areSet(settings.makesResults())
{
    if (!m_areSet) {
        m_requested = settings.attributes;
        return;
    }
    using List = std::pair<std::vector<std::string> const*, Role>;
    for (auto const& [names, role] : {List(&settings.terminalResultAttributes, Role::terminal),
                                      List(&settings.leafResultAttributes, Role::leaf),
                                      List(&settings.specialResultAttributes, Role::special),
                                      List(&settings.attributes, Role::result)}) {
        for (std::string const& name : *names) {
            if (roleOf(name) == Role::none) {
                m_names.push_back({withoutRange(name), role});
                m_requested.push_back(name);
            }
        }
    }
    for (Server const& server : settings.servers) {
        m_hosts.push_back(
            normalizedHost(server.socketPath.empty() ? server.host : server.socketPath));
    }
}

ResultRules::Role ResultRules::roleOf(std::string const& description) const
{
    std::string const name = withoutRange(description);
    std::string const type = typeOf(name);
    auto const found = std::find_if(m_names.begin(), m_names.end(), [&](Name const& candidate) {
        return isSame(candidate.text, name) || isSame(candidate.text, type);
    });
    return found == m_names.end() ? Role::none : found->role;
}

Verdict ResultRules::makeSearch(std::string const& reference, SearchRequest& request,
                                std::string& filter) const
{
    if (hasNul(reference)) {
        return invalid(LDAP_INVALID_DN_SYNTAX, "the DN contains a NUL byte");
    }
    if (ldap_is_ldap_url(reference.c_str()) != 0) {
        return makeUrlSearch(reference, request, filter);
    }
    request = m_request;
    request.base = reference;
    request.attributes = m_requested;
    filter = everyEntry;
    return Verdict();
}

Verdict ResultRules::makeUrlSearch(std::string const& reference, SearchRequest& request,
                                   std::string& filter) const
{
    UrlBuffer url;
    // OpenLDAP would cut the parts of the URL at a NUL.
    if (reference.find("%00") != std::string::npos ||
        ldap_url_parse(reference.c_str(), url.address()) != LDAP_URL_SUCCESS) {
        return invalid(LDAP_PARAM_ERROR, "the LDAP URL is invalid");
    }
    LDAPURLDesc const& parts = *url.get();
    std::string const host = parts.lud_host == nullptr ? "" : parts.lud_host;
    if (!host.empty() &&
        std::find(m_hosts.begin(), m_hosts.end(), normalizedHost(host)) == m_hosts.end()) {
        return invalid(LDAP_PARAM_ERROR,
                       "the LDAP URL names another server, '" + oneLine(host) +
                           "', which is not asked: only those of the settings are");
    }
    if (parts.lud_crit_exts != 0) {
        return invalid(LDAP_PARAM_ERROR, "the LDAP URL has a critical extension");
    }
    request = m_request;
    request.base = parts.lud_dn == nullptr ? "" : parts.lud_dn;
    request.scope = parts.lud_scope == LDAP_SCOPE_DEFAULT ? LDAP_SCOPE_BASE : parts.lud_scope;
    request.attributes = selectedBy(parts.lud_attrs);
    filter = parts.lud_filter == nullptr ? everyEntry : parts.lud_filter;
    return Verdict();
}

/// The requested attributes that a URL selects. If one of both has options, it is requested with
/// them.
std::vector<std::string> ResultRules::selectedBy(char** attributes) const
{
    if (attributes == nullptr || *attributes == nullptr) {
        return m_requested;
    }
    std::vector<std::string> selected;
    for (std::string const& name : m_requested) {
        for (char** attribute = attributes; *attribute != nullptr; ++attribute) {
            std::string const other = *attribute;
            if (other == "*" || isSame(other, name) || isSame(other, typeOf(name))) {
                selected.push_back(name);
                break;
            }
            if (isSame(typeOf(other), name)) {
                selected.push_back(other);
                break;
            }
        }
    }
    return selected;
}

std::string normalizedDn(std::string const& dn)
{
    berval text = {dn.size(), const_cast<char*>(dn.data())};
    DnBuffer parsed;
    if (ldap_bv2dn(&text, parsed.address(), LDAP_DN_FORMAT_LDAP) != LDAP_SUCCESS) {
        return dn;
    }
    std::string normalized;
    for (LDAPRDN* rdn = parsed.get(); rdn != nullptr && *rdn != nullptr; ++rdn) {
        std::vector<std::string> parts;
        for (LDAPAVA** part = *rdn; *part != nullptr; ++part) {
            parts.push_back(textOf(**part));
        }
        std::sort(parts.begin(), parts.end());
        for (std::string const& part : parts) {
            normalized += part + '+';
        }
        normalized += ',';
    }
    return normalized;
}

} // namespace Solvane::Lookup
