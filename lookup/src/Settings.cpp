// Validates the settings.
#include <solvane/lookup/Settings.h>

#include "Engine.h"
#include "ResultRules.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/lookup/QueryTemplate.h>
#include <solvane/session/Address.h>
#include <solvane/session/PlainText.h>

#include <solvart/StringHelpers.h>

#include <algorithm>
#include <string>
#include <tuple>

namespace Solvane::Lookup {

namespace {

/// The source location that an exception reports.
struct FaultSite {
    char const* unit;
    unsigned int line; ///< as reported; stays what it is when the source moves
    int code;
};

namespace at {
// clang-format off
constexpr FaultSite settingRefused { "LDAPLookup.cpp", 20, 2 };
// clang-format on
} // namespace at

LDAPException faultAt(FaultSite const& site, std::string const& text)
{
    constexpr int general = 0;
    LDAPException fault("LDAPException", site.code, site.unit, site.line, general);
    fault.stringParameter(text);
    return fault;
}

void require(bool isRight, std::string const& text)
{
    if (!isRight) {
        throw faultAt(at::settingRefused, text);
    }
}

void requirePlain(char const* what, std::string const& text)
{
    auto const fault = faultIn(text);
    require(!fault, std::string(what) + " contains " + (fault ? describe(*fault) : std::string()));
}

void checkSocket(Server const& server)
{
    std::string const fault = faultInSocketPath(server.socketPath);
    require(server.host.empty() && server.srvDomain.empty(),
            "a server has both a socket and a host or SRV domain");
    require(fault.empty(), "the path of a server's socket " + fault);
    requirePlain("the path of a server's socket", server.socketPath);
    require(!server.usesTls(), "a server has TLS on a UNIX socket, where nothing leaves the host");
}

void checkServers(Settings const& settings)
{
    require(!settings.servers.empty(), "no server is set");
    for (Server const& server : settings.servers) {
        if (!server.socketPath.empty()) {
            checkSocket(server);
            continue;
        }
        require(!server.secure || !server.startTls,
                "a server has both TLS from the first byte and StartTLS");
        require(!server.startTls || server.version != LDAPConnection::V2,
                "a server with StartTLS has LDAPv2: StartTLS needs LDAPv3");
        requirePlain("a server's SRV domain", server.srvDomain);
        require(server.host.empty() || server.srvDomain.empty(),
                "a server has both a host and an SRV domain");
        if (!server.srvDomain.empty()) {
            continue;
        }
        require(!server.host.empty(), "a server has no host");
        requirePlain("a server's host", server.host);
        require(server.port >= 1 && server.port <= 65535,
                "a server's port is not from 1 to 65535: " + std::to_string(server.port));
    }
    for (std::string const& nameServer : settings.nameServers) {
        require(!nameServer.empty(), "a name server has no address");
        requirePlain("a name server", nameServer);
    }
}

void checkSasl(Settings const& settings)
{
    require(settings.bindDn.empty() && settings.password.empty(),
            "a SASL bind takes no bind DN and no password");
    requirePlain("the authorization id", settings.authorizationId);
    bool const isTyped = settings.authorizationId.rfind("dn:", 0) == 0 ||
                         settings.authorizationId.rfind("u:", 0) == 0;
    require(settings.authorizationId.empty() || isTyped,
            "the authorization id does not begin with dn: or u:");
    for (Server const& server : settings.servers) {
        require(server.version != LDAPConnection::V2,
                "a server has LDAPv2: a SASL bind needs LDAPv3");
        require(settings.mechanism != Mechanism::external || server.usesTls() ||
                    !server.socketPath.empty(),
                "SASL EXTERNAL needs servers with TLS and a client certificate, or with a socket");
    }
}

void checkCredentials(Settings const& settings)
{
    if (settings.mechanism != Mechanism::simple) {
        checkSasl(settings);
        return;
    }
    require(settings.authorizationId.empty(), "an authorization id is set without a SASL bind");
    requirePlain("the bind DN", settings.bindDn);
    require(settings.bindDn.empty() || !settings.password.empty(),
            "the bind DN has no password: servers treat an empty one as an anonymous bind");
    require(!settings.bindDn.empty() || settings.password.empty(),
            "a password is set without a bind DN");
    require(settings.password.find('\0') == std::string::npos,
            "the password contains a NUL byte, which cannot be sent");
}

void checkAttributes(std::vector<std::string> const& names)
{
    for (std::string const& name : names) {
        require(!name.empty(), "an attribute name is empty");
        requirePlain("an attribute name", name);
    }
}

/// A name of an attribute whose values are results or members, without options and in lower case.
/// What the server returns is known by its name, so each is named as the server names it.
std::string resultTypeOf(std::string const& name)
{
    std::string type = copyStringToLower(name.substr(0, name.find(';')));
    require(type != "*" && type != "+" && type != "1.1",
            "with groups, a result format or an expansion limit, write the names of the result "
            "attributes one by one, not '" +
                name + '\'');
    require(type.empty() || type.front() < '0' || type.front() > '9',
            "with groups, a result format or an expansion limit, write the name of the result "
            "attribute '" +
                name + "', not its object identifier");
    return type;
}

void checkSpecial(std::string const& name, std::vector<std::string> const& others)
{
    std::string const type = resultTypeOf(name);
    bool const isBoth = std::any_of(others.begin(), others.end(), [&](std::string const& other) {
        return type == resultTypeOf(other);
    });
    require(!isBoth, "the special result attribute '" + name + "' is a result attribute too");
}

void checkPostfixRules(Settings const& settings)
{
    if (settings.postfixRules) {
        std::string const fault = ResultFormat::faultOf(settings.base);
        require(fault.empty(), "the base " + fault);
        require(settings.forms == std::vector<Form>{Form::full},
                "by Postfix's rules, keys have no other forms");
    }
}

/// Groups and the format.
void checkResults(Settings const& settings)
{
    checkAttributes(settings.specialResultAttributes);
    checkAttributes(settings.leafResultAttributes);
    checkAttributes(settings.terminalResultAttributes);
    requirePlain("the result format", settings.resultFormat);
    std::string const fault = ResultFormat::faultOf(settings.resultFormat);
    require(fault.empty(), "the result format " + fault);
    require(settings.recursionLimit >= 1, "the recursion limit must be at least 1");
    if (!settings.makesResults()) {
        return;
    }
    require(!settings.attributes.empty() || !settings.leafResultAttributes.empty() ||
                !settings.terminalResultAttributes.empty(),
            "groups, a result format or an expansion limit are set, but no result attribute");
    for (auto const* const names : {&settings.attributes, &settings.leafResultAttributes,
                                    &settings.terminalResultAttributes}) {
        for (std::string const& name : *names) {
            resultTypeOf(name);
        }
        for (std::string const& name : settings.specialResultAttributes) {
            checkSpecial(name, *names);
        }
    }
}

void checkSearch(Settings const& settings)
{
    requirePlain("the base", settings.base);
    require(settings.scope >= LDAPSearch::ScopeBase && settings.scope <= LDAPSearch::ScopeSubtree,
            "the scope is invalid");
    require(settings.deref >= LDAPSearch::DerefNever && settings.deref <= LDAPSearch::DerefAlways,
            "the alias mode is invalid");
    checkAttributes(settings.attributes);
    require(!settings.forms.empty(), "the list of address forms is empty");
    QueryTemplate const queryTemplate(settings);
    for (QueryTemplate::Finding const& finding : queryTemplate.check()) {
        require(finding.weight != QueryTemplate::Finding::Weight::error,
                "error in the template at byte " + std::to_string(finding.position) + ": " +
                    finding.text);
    }
}

void checkDomains(Settings const& settings)
{
    for (std::string const& domain : settings.domains) {
        require(!domain.empty(), "a served domain has no name");
        requirePlain("a served domain", domain);
    }
}

void checkTimes(Settings const& settings)
{
    // Time points count nanoseconds: a huge duration added to now would overflow.
    constexpr std::chrono::hours longest(365 * 24);
    require(settings.networkTimeout >= 1, "the network timeout must be at least 1 s");
    require(std::chrono::seconds(settings.networkTimeout) <= longest,
            "the network timeout is longer than a year");
    require(settings.deadline.count() >= 1, "the deadline must be at least 1 ms");
    require(settings.deadline <= longest, "the deadline is longer than a year");
    require(settings.backOff.count() >= 0 && settings.longestBackOff >= settings.backOff,
            "the longest back-off is shorter than the first");
    require(settings.longestBackOff <= longest, "the longest back-off is longer than a year");
    require(settings.refusedHold.count() >= 0, "the hold after a refused bind is negative");
    require(settings.refusedHold <= longest, "the hold after a refused bind is longer than a year");
}

void checkSizes(Settings const& settings)
{
    constexpr unsigned int most = 65536;
    require(settings.connections >= 1, "the number of connections must be at least 1");
    require(settings.connections <= most, "the number of connections must be at most 65536");
    require(settings.verifyConnections >= 1,
            "the number of connections for passwords must be at least 1");
    require(settings.window >= 1, "the window must be at least 1");
    require(settings.window <= most, "the window must be at most 65536");
    require(settings.keyBytes >= 1, "the maximum length of keys must be at least 1 byte");
    require(settings.entryBytes >= 1024,
            "the maximum size of an entry must be at least 1024 bytes");
    require(settings.answerBytes >= 1024,
            "the maximum size of an answer must be at least 1024 bytes");
}

} // namespace

void validate(Settings const& settings)
{
    checkServers(settings);
    checkCredentials(settings);
    checkSearch(settings);
    checkPostfixRules(settings);
    checkResults(settings);
    checkDomains(settings);
    checkTimes(settings);
    checkSizes(settings);
}

std::optional<std::string> baseOfAllKeys(Settings const& settings)
{
    if (!settings.postfixRules) {
        return settings.base;
    }
    ResultFormat const format(settings.base);
    return format.hasSpecifiers() ? std::nullopt : std::optional(format.forKey(std::string()));
}

bool haveSameConnections(Settings const& one, Settings const& another)
{
    auto const ofTls = [](TlsPolicy const& tls) {
        return std::tie(tls.verify, tls.caFile, tls.caFolder, tls.crlFile, tls.cipherSuite,
                        tls.minimumVersion, tls.certificateFile, tls.keyFile);
    };
    auto const ofServer = [](Server const& server) {
        return std::tie(server.host, server.port, server.secure, server.version, server.srvDomain,
                        server.startTls, server.socketPath);
    };
    auto const ofConnections = [](Settings const& settings) {
        return std::tie(settings.networkTimeout, settings.mechanism, settings.authorizationId,
                        settings.bindDn, settings.password, settings.deadline, settings.connections,
                        settings.backOff, settings.longestBackOff, settings.nameServers,
                        settings.entryBytes, settings.refusedHold, settings.verifyConnections,
                        settings.observer);
    };
    return ofConnections(one) == ofConnections(another) && ofTls(one.tls) == ofTls(another.tls) &&
           std::equal(one.servers.begin(), one.servers.end(), another.servers.begin(),
                      another.servers.end(), [&](Server const& left, Server const& right) {
                          return ofServer(left) == ofServer(right);
                      });
}

void requireSameConnections(Settings const& settings, Settings const& other)
{
    require(haveSameConnections(settings, other),
            "the settings need other connections than those to share");
}

} // namespace Solvane::Lookup
