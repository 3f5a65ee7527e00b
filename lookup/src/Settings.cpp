// The check of the settings.
#include <solvane/lookup/Settings.h>

#include "FaultSite.h"

#include <solvane/lookup/QueryTemplate.h>
#include <solvane/session/PlainText.h>

namespace Solvane::Lookup {

namespace {

void require(bool isRight, std::string const& text)
{
    if (!isRight) {
        throw faultAt(at::settingRefused, text);
    }
}

void requirePlain(char const* what, std::string const& text)
{
    auto const fault = faultIn(text);
    require(!fault, std::string(what) + " holds " + (fault ? describe(*fault) : std::string()));
}

void checkServers(Settings const& settings)
{
    require(!settings.servers.empty(), "there is no server");
    for (Server const& server : settings.servers) {
        requirePlain("a server's SRV domain", server.srvDomain);
        require(server.host.empty() || server.srvDomain.empty(),
                "a server has a host and an SRV domain");
        if (!server.srvDomain.empty()) {
            continue;
        }
        require(!server.host.empty(), "a server has no host");
        requirePlain("a server's host", server.host);
        require(server.port >= 1 && server.port <= 65535,
                "a server's port is " + std::to_string(server.port));
    }
    for (std::string const& nameServer : settings.nameServers) {
        require(!nameServer.empty(), "a name server has no address");
        requirePlain("a name server", nameServer);
    }
}

void checkCredentials(Settings const& settings)
{
    requirePlain("the bind DN", settings.bindDn);
    require(settings.bindDn.empty() || !settings.password.empty(),
            "the bind DN has no password: servers take an empty one as anonymous");
    require(!settings.bindDn.empty() || settings.password.empty(),
            "there is a password without a bind DN");
    require(settings.password.find('\0') == std::string::npos,
            "the password holds a NUL byte, which cannot be sent");
}

void checkSearch(Settings const& settings)
{
    requirePlain("the base", settings.base);
    require(settings.scope >= LDAPSearch::ScopeBase && settings.scope <= LDAPSearch::ScopeSubtree,
            "the scope is invalid");
    require(settings.deref >= LDAPSearch::DerefNever && settings.deref <= LDAPSearch::DerefAlways,
            "the alias mode is invalid");
    for (std::string const& name : settings.attributes) {
        require(!name.empty(), "an attribute has no name");
        requirePlain("an attribute's name", name);
    }
    require(!settings.forms.empty(), "there is no form of address to look for");
    QueryTemplate const queryTemplate(settings.queryTemplate, settings.bValue, settings.gValue);
    for (QueryTemplate::Finding const& finding : queryTemplate.check()) {
        require(finding.weight != QueryTemplate::Finding::Weight::error,
                "the template is wrong at byte " + std::to_string(finding.position) + ": " +
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
    // Moments are counted in nanoseconds; a time "without end" would lie before its beginning.
    constexpr std::chrono::hours longest(365 * 24);
    require(settings.networkTimeout >= 1, "the network timeout is 0");
    require(std::chrono::seconds(settings.networkTimeout) <= longest,
            "the network timeout is longer than a year");
    require(settings.deadline.count() >= 1, "the deadline is 0 or less");
    require(settings.deadline <= longest, "the deadline is longer than a year");
    require(settings.backOff.count() >= 0 && settings.longestBackOff >= settings.backOff,
            "the longest back-off is shorter than the first");
    require(settings.longestBackOff <= longest, "the longest back-off is longer than a year");
    require(settings.refusedHold.count() >= 0, "the hold after a refused bind is less than 0");
    require(settings.refusedHold <= longest, "the hold after a refused bind is longer than a year");
}

void checkSizes(Settings const& settings)
{
    require(settings.connections >= 1, "no connection is allowed");
    require(settings.window >= 1, "no search in flight is allowed");
    require(settings.keyBytes >= 1, "keys of no byte are allowed");
    require(settings.entryBytes >= 1024, "an entry of less than 1024 bytes is no useful limit");
    require(settings.answerBytes >= 1024, "an answer of less than 1024 bytes is no useful limit");
}

} // namespace

void validate(Settings const& settings)
{
    checkServers(settings);
    checkCredentials(settings);
    checkSearch(settings);
    checkDomains(settings);
    checkTimes(settings);
    checkSizes(settings);
}

} // namespace Solvane::Lookup
