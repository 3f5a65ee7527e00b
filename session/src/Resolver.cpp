// Resolves a name with c-ares.
#include <solvane/session/Resolver.h>

#include <solvane/session/PlainText.h>

#include "NameService.h"
#include "OpenLDAP.h"

#include <new>
#include <optional>

namespace Solvane::Lookup {

struct Resolver::State : public NameQuestion {
    State(std::string const& hostName, unsigned int hostPort) : host(hostName), port(hostPort) {}

    void begin(std::vector<std::string> const& nameServers);
    void end(Outcome outcome, int code, std::string const& why);
    static void answered(void* state, int status, int timeouts, ares_addrinfo* found);
    void take(int status, ares_addrinfo const* found);

    std::string host;
    unsigned int port;
    std::vector<Address> addresses;
};

void Resolver::State::begin(std::vector<std::string> const& nameServers)
{
    if (std::optional<Address> const address = Address::parse(host, port)) {
        addresses.push_back(*address);
        isSettled = true;
        return;
    }
    if (host.find('%') != std::string::npos) {
        end(Outcome::Misconfigured, LDAP_PARAM_ERROR, "addresses with a zone are not supported");
        return;
    }
    if (host.empty() || hasNul(host)) {
        end(Outcome::Misconfigured, LDAP_PARAM_ERROR, "not a host name");
        return;
    }
    service.emplace(nameServers);
    if (!service->fault().empty()) {
        end(Outcome::Misconfigured, LDAP_PARAM_ERROR, service->fault());
        return;
    }
    ares_addrinfo_hints hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = ARES_AI_NUMERICSERV;
    ares_getaddrinfo(service->channel(), host.c_str(), std::to_string(port).c_str(), &hints,
                     answered, this);
}

void Resolver::State::end(Outcome outcome, int code, std::string const& why)
{
    verdict = Verdict{outcome, code, "cannot resolve '" + oneLine(host) + "': " + why};
    isSettled = true;
}

void Resolver::State::answered(void* state, int status, int, ares_addrinfo* found)
{
    auto* const self = static_cast<State*>(state);
    try {
        if (!self->isSettled) {
            self->take(status, found);
        }
    } catch (std::bad_alloc const&) { // must not propagate through C code
        self->addresses.clear();
        self->lacksMemory = true;
    }
    if (found != nullptr) {
        ares_freeaddrinfo(found);
    }
}

void Resolver::State::take(int status, ares_addrinfo const* found)
{
    ares_addrinfo_node const* node = found == nullptr ? nullptr : found->nodes;
    for (; node != nullptr; node = node->ai_next) {
        if (std::optional<Address> const address = Address::from(*node->ai_addr)) {
            addresses.push_back(*address);
        }
    }
    if (status == ARES_SUCCESS && !addresses.empty()) {
        isSettled = true;
        return;
    }
    addresses.clear();
    Verdict const failure = NameService::failure(status == ARES_SUCCESS ? ARES_ENODATA : status);
    end(failure.outcome, failure.code, failure.text);
}

Resolver::Resolver(std::string const& host, unsigned int port,
                   std::vector<std::string> const& nameServers)
    : m_state(std::make_unique<State>(host, port))
{
    m_state->begin(nameServers);
}

Resolver::~Resolver() = default;

void Resolver::advance() { m_state->advance(); }
void Resolver::waits(Waits& waits) const { m_state->waits(waits); }
bool Resolver::isSettled() const { return m_state->isSettled; }
Verdict const& Resolver::verdict() const { return m_state->verdict; }
std::vector<Address> const& Resolver::addresses() const { return m_state->addresses; }

} // namespace Solvane::Lookup
