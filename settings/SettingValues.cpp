// Parses the values of settings: tables of keywords, limits of numbers.
#include "SettingValues.h"

#include "Files.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>

#include <solvane/ldap/LDAPLdif.h>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <sstream>
#include <utility>

namespace Solvane::Tool {

namespace {

template <typename Value> using Word = std::pair<char const*, Value>;

// clang-format off
constexpr Word<LDAPConnection::Protocol> protocols[] = {
    { "2", LDAPConnection::V2 },
    { "3", LDAPConnection::V3 },
};
constexpr Word<LDAPSearch::Scope> scopes[] = {
    { "base", LDAPSearch::ScopeBase },
    { "one",  LDAPSearch::ScopeOneLevel },
    { "sub",  LDAPSearch::ScopeSubtree },
};
constexpr Word<LDAPSearch::Deref> dereferences[] = {
    { "never",  LDAPSearch::DerefNever },
    { "search", LDAPSearch::DerefSearching },
    { "find",   LDAPSearch::DerefFinding },
    { "always", LDAPSearch::DerefAlways },
    { "0",      LDAPSearch::DerefNever },
    { "1",      LDAPSearch::DerefSearching },
    { "2",      LDAPSearch::DerefFinding },
    { "3",      LDAPSearch::DerefAlways },
};
constexpr Word<Lookup::TlsVerify> tlsVerifications[] = {
    { "none",  Lookup::TlsVerify::none },
    { "chain", Lookup::TlsVerify::chain },
    { "full",  Lookup::TlsVerify::full },
};
constexpr Word<Lookup::TlsVersion> tlsVersions[] = {
    { "1.0", Lookup::TlsVersion::tls10 },
    { "1.1", Lookup::TlsVersion::tls11 },
    { "1.2", Lookup::TlsVersion::tls12 },
    { "1.3", Lookup::TlsVersion::tls13 },
};
constexpr Word<Lookup::Mechanism> saslMechanisms[] = {
    { "external", Lookup::Mechanism::external },
    { "gssapi",   Lookup::Mechanism::gssapi },
};
constexpr Word<Lookup::References> references[] = {
    { "defer",  Lookup::References::defer },
    { "ignore", Lookup::References::ignore },
};
constexpr Word<LDAPLookup::Form> forms[] = {
    { "full",   LDAPLookup::Form::full },
    { "noext",  LDAPLookup::Form::noext },
    { "bare",   LDAPLookup::Form::bare },
    { "domain", LDAPLookup::Form::domain },
};
// clang-format on

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

/// The value of a keyword. Throws with the list of keywords if it is unknown.
template <typename Value, std::size_t count>
Value valueOf(std::string const& text, Word<Value> const (&words)[count])
{
    std::string names;
    for (auto const& [name, value] : words) {
        if (text == name) {
            return value;
        }
        names += names.empty() ? "" : ", ";
        names += name;
    }
    refuse(fmt::format("unsupported value '{}'", oneLine(text)), "choose one of " + names);
}

template <typename Value, std::size_t count>
std::string wordFor(Value value, Word<Value> const (&words)[count])
{
    auto const* const found = std::find_if(std::begin(words), std::end(words),
                                           [&](auto const& word) { return word.second == value; });
    return found == std::end(words) ? std::string() : found->first;
}

bool isGraphic(char character) { return character > ' ' && character <= '~'; }

/// The characters of attribute descriptions (RFC 4512 section 2.5), of `*`, `+` and `@class`, and of Active
/// Directory's `member;range=1500-*`.
bool isAttributeSelector(std::string const& text)
{
    return isAlphanumeric(text, "-.;*+@_=") && text.find('=') >= text.find(';');
}

/// Whether the text is an IP address, with or without a port.
bool isNameServer(std::string const& text)
{
    constexpr unsigned int port = 53;
    if (Lookup::Address::parse(text, port)) {
        return true;
    }
    auto const colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    bool const isBracketed = host.size() > 1 && host.front() == '[' && host.back() == ']';
    host = isBracketed ? host.substr(1, host.size() - 2) : host;
    auto const address = Lookup::Address::parse(host, port);
    if (colon == std::string::npos || !address || isBracketed != (address->family() == AF_INET6)) {
        return false;
    }
    numberIn(text.substr(colon + 1), 1, 65535); // throws for an invalid port
    return true;
}

/// Returns the words if there are any and `isOne` accepts each; else throws.
/// @param kind  name of the kind of value, for the message
std::vector<std::string> checked(std::vector<std::string> words,
                                 bool (*isOne)(std::string const& word), char const* kind,
                                 char const* remedy)
{
    for (std::string const& word : words) {
        if (!isOne(word)) {
            refuse(fmt::format("invalid {} '{}'", kind, oneLine(word)), remedy);
        }
    }
    if (words.empty()) {
        refuse(fmt::format("no {} given", kind), remedy);
    }
    return words;
}

/// The domains in a file, separated by white space; comments start with '#'.
std::vector<std::string> domainsOf(std::string const& path)
{
    std::vector<std::string> domains;
    std::istringstream lines(readFile("the file of domains", path));
    for (std::string line; std::getline(lines, line);) {
        for (std::string& domain : wordsIn(line.substr(0, line.find('#')))) {
            domains.push_back(std::move(domain));
        }
    }
    return domains;
}

} // namespace

unsigned int numberIn(std::string const& text, unsigned int least, unsigned int greatest)
{
    unsigned int number = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > greatest) {
        refuse(fmt::format("'{}' is not a number in the allowed range", oneLine(text)),
               fmt::format("give a whole number from {} to {}", least, greatest));
    }
    return number;
}

std::chrono::seconds durationIn(std::string const& text)
{
    return std::chrono::seconds(numberIn(text, 1, longestSeconds));
}

bool booleanIn(std::string const& text)
{
    if (text != "yes" && text != "no") {
        refuse(fmt::format("unsupported value '{}'", oneLine(text)), "choose yes or no");
    }
    return text == "yes";
}

std::optional<std::size_t> ldifWrapIn(std::string const& text)
{
    constexpr std::string_view name = "ldif-wrap=";
    if (text.compare(0, name.size(), name) != 0) {
        return {};
    }
    std::string const width = text.substr(name.size());
    return width == "no" ? LDAPLdif::unfolded : numberIn(width, 2, 1000000);
}

unsigned int networkTimeoutIn(std::string const& text)
{
    constexpr std::string_view name = "nettimeout=";
    if (text.compare(0, name.size(), name) != 0) {
        refuse(fmt::format("unsupported option '{}'", text),
               "write -o nettimeout=SECONDS or -o ldif-wrap=WIDTH");
    }
    return numberIn(text.substr(name.size()), 1, longestSeconds);
}

LDAPConnection::Protocol protocolIn(std::string const& text) { return valueOf(text, protocols); }

LDAPSearch::Scope scopeIn(std::string const& text) { return valueOf(text, scopes); }

LDAPSearch::Deref dereferenceIn(std::string const& text) { return valueOf(text, dereferences); }

Lookup::TlsVerify tlsVerifyIn(std::string const& text) { return valueOf(text, tlsVerifications); }

Lookup::TlsVerify tlsRequireCertIn(std::string const& text)
{
    return booleanIn(text) ? Lookup::TlsVerify::full : Lookup::TlsVerify::none;
}

Lookup::TlsVersion tlsVersionIn(std::string const& text) { return valueOf(text, tlsVersions); }

Lookup::Mechanism saslMechanismIn(std::string const& text)
{
    std::string name = text;
    std::transform(name.begin(), name.end(), name.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    });
    auto const* const found =
        std::find_if(std::begin(saslMechanisms), std::end(saslMechanisms),
                     [&](auto const& mechanism) { return name == mechanism.first; });
    if (found == std::end(saslMechanisms)) {
        refuse(fmt::format("unsupported SASL mechanism '{}'", oneLine(text)),
               "choose external or gssapi; to bind with a password, use -D over TLS");
    }
    return found->second;
}

std::string authorizationIdIn(std::string const& text)
{
    if (text.rfind("dn:", 0) != 0 && text.rfind("u:", 0) != 0) {
        refuse(fmt::format("invalid identity '{}'", oneLine(text)), "write dn:DN or u:NAME");
    }
    return dnIn(text);
}

Lookup::References referencesIn(std::string const& text) { return valueOf(text, references); }

std::chrono::seconds holdIn(std::string const& text)
{
    return std::chrono::seconds(numberIn(text, 0, longestSeconds));
}

std::vector<std::string> nameServersIn(std::string const& text)
{
    return checked(wordsIn(text), isNameServer, "name server address",
                   "write 192.0.2.1, 192.0.2.1:53, 2001:db8::1 or [2001:db8::1]:53");
}

std::vector<LDAPLookup::Form> formsIn(std::string const& text)
{
    std::vector<LDAPLookup::Form> made;
    for (std::string const& word : wordsIn(text)) {
        made.push_back(valueOf(word, forms));
    }
    if (made.empty()) {
        refuse("no address form given", "list the forms to try, as in full,noext,domain");
    }
    return made;
}

char delimiterIn(std::string const& text)
{
    if (text.empty()) {
        return '\0';
    }
    if (text.size() > 1 || !isGraphic(text.front()) || text.front() == '@') {
        refuse(fmt::format("invalid delimiter '{}'", oneLine(text)),
               "give one ASCII character other than '@', or nothing");
    }
    return text.front();
}

std::vector<std::string> attributesIn(std::string const& text)
{
    return checked(wordsIn(text), isAttributeSelector, "attribute",
                   "separate names by commas, as in cn,mail");
}

std::string resultFormatIn(std::string const& text)
{
    LDAPLookup::Settings settings; // valid, except perhaps for the format
    settings.servers = {{"localhost"}};
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = {"mail"};
    settings.resultFormat = text;
    try {
        Lookup::validate(settings);
    } catch (LDAPException const& fault) {
        refuse(fault.stringParameter(), "solvane-ldap.conf(5) lists the specifiers");
    }
    return text;
}

std::vector<std::string> domainsIn(std::string const& text)
{
    std::vector<std::string> domains;
    std::vector<std::string> words = wordsIn(text);
    // A path may contain blanks: what follows it are domains only if they look like some.
    bool const isPath = !text.empty() && (text.front() == '@' || text.front() == '/');
    if (isPath && std::none_of(words.begin() + 1, words.end(), isDomain)) {
        words = {text};
    }
    for (std::string& word : words) {
        bool const isMarked = word.front() == '@';
        if (!isMarked && word.front() != '/') {
            domains.push_back(std::move(word));
            continue;
        }
        for (std::string& domain : domainsOf(word.substr(isMarked ? 1 : 0))) {
            domains.push_back(std::move(domain));
        }
    }
    // An empty list would mean that all domains are served.
    return checked(std::move(domains), isDomain, "domain",
                   "list domains as in example.com,example.org, or name a file, as in "
                   "/etc/mail/domains");
}

bool isDomain(std::string const& text)
{
    return !text.empty() && !faultIn(text) && text.front() != '.' &&
           text.find_first_of("@:/!$%*()\"'=;<>|\\") == std::string::npos;
}

std::string dnIn(std::string const& text)
{
    if (auto const fault = faultIn(text)) {
        refuse(fmt::format("the DN '{}' contains {}", oneLine(text), describe(*fault)),
               "write it in UTF-8 without control characters");
    }
    return text;
}

std::string bindDnIn(std::string const& text)
{
    if (text.empty()) {
        refuse("the DN is empty", "omit -D to bind anonymously");
    }
    return dnIn(text);
}

std::string ourTemplate(std::string const& text)
{
    constexpr std::string_view theirs = "suSUdDnL123456789%{";
    for (auto at = text.find('%'); at != std::string::npos; at = text.find('%', at + 1)) {
        if (at + 1 < text.size() && theirs.find(text[at + 1]) != std::string_view::npos) {
            refuse(fmt::format("unsupported specifier '{}'", text.substr(at, 2)),
                   "write $m for the address (%s), $u for its local part (%u), $d for its domain "
                   "(%d), \\25 for a '%'");
        }
    }
    return text;
}

// Texts

std::string textOf(bool value) { return value ? "yes" : "no"; }

std::string textOf(char value) { return value == '\0' ? std::string() : std::string(1, value); }

std::string textOf(unsigned int value) { return std::to_string(value); }

std::string textOf(std::size_t value) { return std::to_string(value); }

std::string textOf(std::chrono::milliseconds value)
{
    return fmt::format("{}", static_cast<double>(value.count()) / 1000);
}

std::string textOf(LDAPConnection::Protocol value) { return wordFor(value, protocols); }

std::string textOf(LDAPSearch::Scope value) { return wordFor(value, scopes); }

std::string textOf(LDAPSearch::Deref value) { return wordFor(value, dereferences); }

std::string textOf(Lookup::TlsVerify value) { return wordFor(value, tlsVerifications); }

std::string textOf(Lookup::TlsVersion value) { return wordFor(value, tlsVersions); }

std::string textOf(Lookup::Mechanism value) { return wordFor(value, saslMechanisms); }

std::string textOf(Lookup::References value) { return wordFor(value, references); }

std::string textOf(std::vector<LDAPLookup::Form> const& value)
{
    std::vector<std::string> words;
    words.reserve(value.size());
    for (LDAPLookup::Form const form : value) {
        words.push_back(wordFor(form, forms));
    }
    return textOf(words);
}

std::string textOf(std::vector<std::string> const& value) { return joined(value, ","); }

std::string const& textOf(std::string const& value) { return value; }

std::vector<std::string> serversIn(std::string const& text)
{
    std::vector<std::string> servers;
    for (std::string const& word : wordsIn(text)) {
        // A host has no '=': a word with one continues the DN of the URI before it.
        bool const continues = !servers.empty() && word.find('=') < word.find_first_of(":/[");
        if (continues && servers.back().find("+srv:") != std::string::npos) {
            servers.back() += ',' + word;
        } else {
            servers.push_back(word);
        }
    }
    return servers;
}

std::string Endpoint::text() const
{
    if (!address) {
        return "unix:" + path;
    }
    std::string const host =
        address->family() == AF_INET6 ? '[' + address->host() + ']' : address->host();
    return fmt::format("inet:{}:{}", host, address->port());
}

Endpoint endpointIn(std::string const& text)
{
    constexpr char remedy[] = "write unix:/absolute/path, inet:127.0.0.1:PORT or inet:[::1]:PORT";
    Endpoint endpoint;
    if (text.rfind("unix:", 0) == 0) {
        endpoint.path = text.substr(5);
        std::string const fault = Lookup::faultInSocketPath(endpoint.path);
        if (!fault.empty()) {
            throw Failure(Outcome::usage, fmt::format("the path in '{}' {}", oneLine(text), fault),
                          remedy);
        }
        return endpoint;
    }
    auto const colon = text.rfind(':');
    if (text.rfind("inet:", 0) == 0 && colon > 4) {
        std::string host = text.substr(5, colon - 5);
        bool const isBracketed = host.size() > 1 && host.front() == '[' && host.back() == ']';
        host = isBracketed ? host.substr(1, host.size() - 2) : host;
        endpoint.address = Lookup::Address::parse(host, numberIn(text.substr(colon + 1), 1, 65535));
        if (endpoint.address && isBracketed == (endpoint.address->family() == AF_INET6)) {
            return endpoint;
        }
    }
    throw Failure(Outcome::usage, fmt::format("invalid socket '{}'", oneLine(text)), remedy);
}

std::vector<std::string> wordsIn(std::string_view text)
{
    constexpr std::string_view separators = ", \t\r\n";
    std::vector<std::string> words;
    for (auto begin = text.find_first_not_of(separators); begin != std::string_view::npos;
         begin = text.find_first_not_of(separators, begin)) {
        auto const end = std::min(text.find_first_of(separators, begin), text.size());
        words.emplace_back(text.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

} // namespace Solvane::Tool
