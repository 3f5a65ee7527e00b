// The public calls, and the check of the settings.
#include <solvane/lookup/LDAPLookup.h>

#include "Bulk.h"
#include "CurrentProcess.h"
#include "FaultSite.h"

#include <solvane/lookup/PlainText.h>

#include <atomic>
#include <utility>

namespace Solvane {

namespace {

using Lookup::faultIn;

[[noreturn]] void refuse(std::string const& text)
{
    throw Lookup::faultAt(Lookup::at::settingRefused, text);
}

void require(bool isRight, std::string const& text)
{
    if (!isRight) {
        refuse(text);
    }
}

void requirePlain(char const* what, std::string const& text)
{
    auto const fault = faultIn(text);
    require(!fault, std::string(what) + " holds " + (fault ? describe(*fault) : std::string()));
}

void checkServers(LDAPLookup::Settings const& settings)
{
    require(!settings.servers.empty(), "there is no server");
    for (LDAPLookup::Server const& server : settings.servers) {
        require(!server.host.empty(), "a server has no host");
        requirePlain("a server's host", server.host);
        require(server.port >= 1 && server.port <= 65535,
                "a server's port is " + std::to_string(server.port));
    }
}

void checkCredentials(LDAPLookup::Settings const& settings)
{
    requirePlain("the bind DN", settings.bindDn);
    require(settings.bindDn.empty() || !settings.password.empty(),
            "the bind DN has no password: servers take an empty one as anonymous");
    require(!settings.bindDn.empty() || settings.password.empty(),
            "there is a password without a bind DN");
    require(settings.password.find('\0') == std::string::npos,
            "the password holds a NUL byte, which cannot be sent");
}

void checkSearch(LDAPLookup::Settings const& settings)
{
    requirePlain("the base", settings.base);
    require(settings.scope >= LDAPSearch::ScopeBase && settings.scope <= LDAPSearch::ScopeSubtree,
            "the scope is none");
    require(settings.deref >= LDAPSearch::DerefNever && settings.deref <= LDAPSearch::DerefAlways,
            "the alias mode is none");
    for (std::string const& name : settings.attributes) {
        require(!name.empty(), "an attribute has no name");
        requirePlain("an attribute's name", name);
    }
    require(!settings.forms.empty(), "there is no form of address to look for");
    using Lookup::QueryTemplate;
    QueryTemplate const queryTemplate(settings.queryTemplate, settings.bValue, settings.gValue);
    for (QueryTemplate::Finding const& finding : queryTemplate.check()) {
        require(finding.weight != QueryTemplate::Finding::Weight::error,
                "the template is wrong at byte " + std::to_string(finding.position) + ": " +
                    finding.text);
    }
}

void checkLimits(LDAPLookup::Settings const& settings)
{
    // Moments are counted in nanoseconds; a time "without end" would lie before its beginning.
    constexpr std::chrono::hours longest(365 * 24);
    require(settings.networkTimeout >= 1, "the network timeout is no time");
    require(std::chrono::seconds(settings.networkTimeout) <= longest,
            "the network timeout is longer than a year");
    require(settings.deadline.count() >= 1, "the deadline is no time");
    require(settings.deadline <= longest, "the deadline is longer than a year");
    require(settings.backOff.count() >= 0 && settings.longestBackOff >= settings.backOff,
            "the longest back-off is shorter than the first");
    require(settings.longestBackOff <= longest, "the longest back-off is longer than a year");
    require(settings.connections >= 1, "no connection is allowed");
    require(settings.window >= 1, "no search in flight is allowed");
}

LDAPLookup::Settings const& checked(LDAPLookup::Settings const& settings)
{
    checkServers(settings);
    checkCredentials(settings);
    checkSearch(settings);
    checkLimits(settings);
    return settings;
}

} // namespace

/// What all threads of one process share. A forked child makes itself a state of its own: threads
/// that it does not have may be in the midst of changing the one it was born with, wait for a session
/// there, and hold some. So it closes the idle sessions and leaves the rest as it is, for good.
class LDAPLookup::Engine : public NonCopyable {
public:
    explicit Engine(Settings const& settings) : m_state(new State(settings)) {}
    ~Engine()
    {
        State* const state = m_state;
        if (state->process == currentProcess()) {
            delete state;
        } else {
            state->sessions.leaveToParent();
        }
    }

    Lookup::Shared& shared()
    {
        State* inherited = m_state;
        while (inherited->process != currentProcess()) {
            auto own = std::make_unique<State>(inherited->settings);
            if (m_state.compare_exchange_strong(inherited, own.get())) {
                inherited->sessions.leaveToParent();
                return *own.release();
            }
        }
        return *inherited;
    }

private:
    struct State : Lookup::Shared {
        using Shared::Shared;
        unsigned long const process = currentProcess();
    };

    std::atomic<State*> m_state;
};

LDAPLookup::LDAPLookup(Settings const& settings)
    : m_engine(std::make_unique<Engine>(checked(settings)))
{
}

LDAPLookup::~LDAPLookup() = default;

LDAPLookup::Answer LDAPLookup::find(std::string const& address)
{
    Answer answer;
    bool isGiven = false;
    Source const source = [&](std::string& key, bool) {
        if (isGiven) {
            return Supply::end;
        }
        key = address;
        isGiven = true;
        return Supply::key;
    };
    Sink const sink = [&](std::string const&, Answer&& found) {
        answer = std::move(found);
        return true;
    };
    Lookup::Bulk(m_engine->shared(), source, sink, 1, 1).run();
    return answer;
}

void LDAPLookup::findAll(Source const& source, Sink const& sink)
{
    Lookup::Shared& shared = m_engine->shared();
    Lookup::Bulk(shared, source, sink, shared.settings.connections, shared.settings.window).run();
}

LDAPLookup::Statistics LDAPLookup::statistics() const
{
    Lookup::Shared const& shared = m_engine->shared();
    return {shared.sessions.openedCount(), shared.reused, shared.sessions.staleCount(),
            shared.repeated};
}

} // namespace Solvane
