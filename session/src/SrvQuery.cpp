// Queries SRV records with c-ares.
#include <solvane/session/SrvQuery.h>

#include <solvane/session/PlainText.h>

#include <solvart/StringHelpers.h>

#include "NameService.h"
#include "OpenLDAP.h"

#include <algorithm>
#include <exception>
#include <new>
#include <optional>
#include <random>

#include <arpa/nameser.h>

namespace Solvane::Lookup {

namespace {

/// The index of the target in a range at which the running sum of weights first reaches `limit`.
std::size_t indexAt(std::vector<SrvTarget> const& targets, std::size_t begin, std::size_t end,
                    std::uint32_t limit)
{
    std::uint32_t sum = 0;
    for (std::size_t i = begin; i < end; ++i) {
        sum += targets[i].weight;
        if (sum >= limit) {
            return i;
        }
    }
    return begin;
}

/// What random order begins with. It shares out load and is no secret, so that the time will do on
/// a system without random numbers.
std::uint32_t seed()
{
    try {
        return std::random_device()();
    } catch (std::exception const&) { // must not propagate through C code
        return static_cast<std::uint32_t>(Clock::now().time_since_epoch().count());
    }
}

/// A domain name as it is compared: in lower case, without the dot of the root.
std::string comparable(std::string const& name)
{
    bool const isAbsolute = !name.empty() && name.back() == '.';
    return copyStringToLower(name.substr(0, name.size() - (isAbsolute ? 1 : 0)));
}

/// Whether the record says that the domain has no such service (RFC 2782: target ".").
bool isNone(SrvTarget const& target) { return target.host.empty() || target.host == "."; }

} // namespace

std::vector<SrvTarget> inOrderOfTrial(std::vector<SrvTarget> targets,
                                      std::function<std::uint32_t(std::uint32_t)> const& random)
{
    // RFC 2782's algorithm, for each priority: put weight 0 first, which gives those targets a
    // small chance; draw a number from 0 to the sum of the weights; choose the first target at
    // which the running sum reaches it; repeat with the remaining ones. Example: weights 0, 1, 3
    // and a draw of 2: the sums are 0, 1, 4, so the third one is first.
    std::stable_sort(targets.begin(), targets.end(), [](SrvTarget const& a, SrvTarget const& b) {
        return a.priority != b.priority ? a.priority < b.priority : a.weight == 0 && b.weight != 0;
    });
    for (std::size_t begin = 0; begin < targets.size(); ++begin) {
        std::size_t end = begin;
        std::uint32_t sum = 0;
        for (; end < targets.size() && targets[end].priority == targets[begin].priority; ++end) {
            sum += targets[end].weight;
        }
        auto const first = targets.begin() + static_cast<std::ptrdiff_t>(begin);
        auto const chosen = targets.begin() +
                            static_cast<std::ptrdiff_t>(indexAt(targets, begin, end, random(sum)));
        std::rotate(first, chosen, chosen + 1);
    }
    return targets;
}

bool isInside(std::string const& target, std::string const& domain)
{
    std::string const inner = comparable(target);
    std::string const outer = comparable(domain);
    if (outer.empty() || inner.size() < outer.size()) {
        return false;
    }
    std::size_t const front = inner.size() - outer.size();
    return inner.compare(front, outer.size(), outer) == 0 &&
           (front == 0 || (front > 1 && inner[front - 1] == '.'));
}

std::string srvNameOf(std::string const& domain, bool secure)
{
    return (secure ? "_ldaps._tcp." : "_ldap._tcp.") + domain;
}

struct SrvQuery::State : public NameQuestion {
    State(std::string const& ofDomain, bool isSecure)
        : domain(ofDomain), name(srvNameOf(ofDomain, isSecure))
    {
    }

    void begin(std::vector<std::string> const& nameServers);
    void end(Outcome outcome, int code, std::string const& why);
    static void answered(void* state, int status, int timeouts, unsigned char* bytes, int length);
    void take(int status, unsigned char const* bytes, int length);

    std::string domain;
    std::string name;
    std::vector<SrvTarget> targets;
};

void SrvQuery::State::begin(std::vector<std::string> const& nameServers)
{
    if (domain.empty() || hasNul(domain)) {
        end(Outcome::Misconfigured, LDAP_PARAM_ERROR, "not a domain");
        return;
    }
    service.emplace(nameServers);
    if (!service->fault().empty()) {
        end(Outcome::Misconfigured, LDAP_PARAM_ERROR, service->fault());
        return;
    }
    ares_query(service->channel(), name.c_str(), ns_c_in, ns_t_srv, answered, this);
}

void SrvQuery::State::end(Outcome outcome, int code, std::string const& why)
{
    verdict = Verdict{outcome, code,
                      "cannot find the servers of '" + oneLine(domain) + "' (" + oneLine(name) +
                          "): " + why};
    isSettled = true;
}

void SrvQuery::State::answered(void* state, int status, int, unsigned char* bytes, int length)
{
    auto* const self = static_cast<State*>(state);
    try {
        if (!self->isSettled) {
            self->take(status, bytes, length);
        }
    } catch (std::bad_alloc const&) { // must not propagate through C code
        self->targets.clear();
        self->lacksMemory = true;
    }
}

void SrvQuery::State::take(int status, unsigned char const* bytes, int length)
{
    ares_srv_reply* reply = nullptr;
    int const error = status == ARES_SUCCESS ? ares_parse_srv_reply(bytes, length, &reply) : status;
    std::unique_ptr<ares_srv_reply, void (*)(void*)> const owner(reply, ares_free_data);
    for (ares_srv_reply const* record = reply; record != nullptr; record = record->next) {
        targets.push_back(SrvTarget{record->host, record->port, record->priority, record->weight});
    }
    targets.erase(std::remove_if(targets.begin(), targets.end(), isNone), targets.end());
    if (error != ARES_SUCCESS) {
        targets.clear();
        Verdict const failure = NameService::failure(error);
        end(failure.outcome, failure.code, failure.text);
        return;
    }
    if (targets.empty()) {
        end(Outcome::TryLater, LDAP_SERVER_DOWN, "the domain has no LDAP server");
        return;
    }
    std::mt19937 generator{seed()};
    targets = inOrderOfTrial(std::move(targets), [&generator](std::uint32_t highest) {
        return std::uniform_int_distribution<std::uint32_t>(0, highest)(generator);
    });
    isSettled = true;
}

SrvQuery::SrvQuery(std::string const& domain, bool secure,
                   std::vector<std::string> const& nameServers)
    : m_state(std::make_unique<State>(domain, secure))
{
    m_state->begin(nameServers);
}

SrvQuery::~SrvQuery() = default;

std::vector<SrvTarget> const& SrvQuery::targets() const { return m_state->targets; }
Verdict const& SrvQuery::verdict() const { return m_state->verdict; }
bool SrvQuery::isSettled() const { return m_state->isSettled; }
void SrvQuery::waits(Waits& waits) const { m_state->waits(waits); }
void SrvQuery::advance() { m_state->advance(); }

} // namespace Solvane::Lookup
