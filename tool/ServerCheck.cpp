// From a host's name to an answer, step by step.
#include "ServerCheck.h"

#include "Files.h"
#include "Histogram.h"
#include "OpenLDAP.h"
#include "Secret.h"
#include "Text.h"

#include <solvane/ldap/impl.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

namespace Solvane::Tool {

using Lookup::Clock;
using Lookup::DirectorySession;
using Lookup::TlsVerify;
using Lookup::Verdict;
using std::chrono::milliseconds;

namespace {

constexpr long secondsOfADay = 86400;
constexpr long daysOfWarning = 14;

std::string uriOf(LDAPLookup::Server const& server)
{
    bool const isV6 = server.host.find(':') != std::string::npos;
    return fmt::format("{}://{}{}{}:{}", server.secure ? "ldaps" : "ldap", isV6 ? "[" : "",
                       server.host, isV6 ? "]" : "", server.port);
}

template <typename Texts> std::string joined(Texts const& texts)
{
    std::string all;
    for (std::string const& text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all;
}

/// The address in the URI that OpenLDAP is given.
std::string addressIn(std::string const& uri)
{
    auto const begin = uri.find('[') + 1;
    return uri.substr(begin, uri.find(']') - begin);
}

/// Opens a TCP connection and closes it.
/// @return 0, or why it failed, as errno has it
int tryConnect(std::string const& address, unsigned int port, milliseconds limit)
{
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return EADDRNOTAVAIL;
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const owner(found, freeaddrinfo);
    Descriptor const socket(
        ::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket.isOpen()) {
        return errno;
    }
    if (connect(socket.get(), found->ai_addr, found->ai_addrlen) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    pollfd waited = {socket.get(), POLLOUT, 0};
    if (poll(&waited, 1, static_cast<int>(limit.count())) <= 0) {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

std::string shown(LDAPSearchResultEntry const& entry)
{
    std::string text;
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        text += fmt::format("{}{}: {}", text.empty() ? "" : "; ", attribute.type().asString(),
                            joined(attribute.value()));
    }
    return text;
}

} // namespace

struct ServerCheck::Step {
    char const* name;
    bool (ServerCheck::*take)();
    bool isForTls;
};

/// How a search ended, and what it found.
struct ServerCheck::SearchEnd {
    Verdict verdict;
    LDAPResult result;
};

ServerCheck::ServerCheck(LDAPLookup::Settings const& settings, LDAPLookup::Server const& server,
                         Probe const& probe, CheckReport& report)
    : m_settings(settings), m_server(server), m_probe(probe), m_report(report), m_uri(uriOf(server))
{
    m_settings.servers = {server};
}

ServerCheck::~ServerCheck() { wipe(m_settings.password); }

void ServerCheck::run()
{
    // clang-format off
    static constexpr Step steps[] = {
        { "resolution",  &ServerCheck::resolve,          false },
        { "TCP",         &ServerCheck::reach,            false },
        { "TLS",         &ServerCheck::shakeHands,       true  },
        { "certificate", &ServerCheck::judgeCertificate, true  },
        { "name",        &ServerCheck::judgeName,        true  },
        { "chain",       &ServerCheck::judgeChain,       true  },
        { "bind",        &ServerCheck::bind,             false },
        { "who am I",    &ServerCheck::askIdentity,      false },
        { "root DSE",    &ServerCheck::readRootDse,      false },
        { "base",        &ServerCheck::findBase,         false },
        { "probe",       &ServerCheck::probe,            false },
        { "pool",        &ServerCheck::probeAgain,       false },
        { "latency",     &ServerCheck::measure,          false },
    };
    // clang-format on
    m_report.beginServer(m_uri);
    std::string obstacle;
    for (Step const& step : steps) {
        if (step.isForTls && !m_server.secure) {
            continue;
        }
        m_step = step.name;
        if (!obstacle.empty()) {
            m_report.skipped(step.name, obstacle);
        } else if (!(this->*step.take)()) {
            obstacle = fmt::format("'{}' did not pass", step.name);
        }
    }
    m_report.endServer();
}

// The way to the server

bool ServerCheck::resolve()
{
    Stopwatch const watch;
    try {
        m_description =
            LDAPConnection::RefServer(m_server.host, m_server.port, m_server.version,
                                      m_server.secure, m_settings.networkTimeout, false, false);
    } catch (LDAPException const&) {
        m_report.failed(m_step, Outcome::tryLater,
                        fmt::format("the host '{}' does not resolve", m_server.host),
                        "check the name in -H and the name service", watch.milliseconds());
        return false;
    }
    m_report.passed(m_step, addressIn(m_description->uri.asString()), watch.milliseconds());
    return true;
}

bool ServerCheck::reach()
{
    Stopwatch const watch;
    std::string const address = addressIn(m_description->uri.asString());
    int const error =
        tryConnect(address, m_server.port,
                   std::min<milliseconds>(std::chrono::seconds(m_settings.networkTimeout),
                                          m_settings.deadline));
    if (error != 0) {
        m_report.failed(
            m_step, Outcome::tryLater,
            fmt::format("no connection to {} port {}: {}", address, m_server.port, strerror(error)),
            "check that the server runs, the port, and what filters stand between",
            watch.milliseconds());
        return false;
    }
    m_report.passed(m_step, fmt::format("{} port {}", address, m_server.port),
                    watch.milliseconds());
    return true;
}

// TLS

/// With a session that takes any certificate, so that a bad one can be described.
bool ServerCheck::shakeHands()
{
    Stopwatch const watch;
    auto const accepting = session(TlsVerify::none);
    Verdict const verdict = accepting->connect(deadline());
    m_certificate = accepting->certificate();
    return take(verdict, accepting->tlsVersion() + ", " + accepting->tlsCipher(), watch);
}

bool ServerCheck::judgeCertificate()
{
    if (!m_certificate) {
        m_report.warned(m_step, "the server shows none that can be read");
        return true;
    }
    long const seconds = m_certificate->notAfter() - std::time(nullptr);
    long const days = std::abs(seconds) / secondsOfADay;
    std::string const text =
        fmt::format("{}, for {}, {}", m_certificate->subject(),
                    m_certificate->names().empty() ? "no names" : joined(m_certificate->names()),
                    fmt::format(seconds < 0 ? "ended {} days ago" : "{} days left", days));
    if (seconds < daysOfWarning * secondsOfADay) {
        m_report.warned(m_step, text);
    } else {
        m_report.passed(m_step, text);
    }
    return true;
}

bool ServerCheck::judgeName()
{
    Stopwatch const watch;
    bool const isFor = m_certificate && m_certificate->isFor(m_server.host);
    judge(isFor, m_settings.tls.verify == TlsVerify::full,
          isFor ? fmt::format("the certificate is for '{}'", m_server.host)
                : fmt::format("the certificate is not for '{}'", m_server.host),
          "name a host of the certificate in -H", watch);
    return true;
}

bool ServerCheck::judgeChain()
{
    Stopwatch const watch;
    Verdict const verdict = session(TlsVerify::chain)->connect(deadline());
    bool const isDemanded = m_settings.tls.verify != TlsVerify::none;
    bool const isAboutTrust = verdict.isGood() || verdict.outcome == Lookup::Outcome::Refused;
    if (isDemanded && !isAboutTrust) {
        return take(verdict, "", watch);
    }
    judge(verdict.isGood(), isDemanded,
          verdict.isGood() ? "accepted with " + m_settings.tls.authorities()
                           : withoutUri(verdict.text),
          "name the authority's file with --tls-ca, or have the certificate renewed", watch);
    return m_isTrusted;
}

/// Reports a finding about trust: a failure where the settings demand that trust.
void ServerCheck::judge(bool isGood, bool isDemanded, std::string const& text,
                        std::string const& remedy, Stopwatch const& watch)
{
    if (isGood) {
        m_report.passed(m_step, text, watch.milliseconds());
    } else if (isDemanded) {
        m_isTrusted = false;
        m_report.failed(m_step, Outcome::denied, text, remedy, watch.milliseconds());
    } else {
        m_report.warned(m_step, text + "; not demanded by --tls-verify", watch.milliseconds());
    }
}

// As whom

bool ServerCheck::bind()
{
    Stopwatch const watch;
    m_session = session(m_settings.tls.verify);
    Verdict verdict = m_session->connect(deadline());
    if (!verdict.isGood() || m_settings.bindDn.empty()) {
        return take(verdict, "anonymous", watch);
    }
    verdict = m_session->bind(m_settings.bindDn, m_settings.password, deadline());
    return take(verdict,
                fmt::format("as {}{}", m_settings.bindDn,
                            m_server.secure ? "" : "; the password crosses the network as it is"),
                watch);
}

bool ServerCheck::askIdentity()
{
    if (m_settings.bindDn.empty()) {
        m_report.skipped(m_step, "anonymous");
        return true;
    }
    Stopwatch const watch;
    Verdict const verdict = m_session->confirmIdentity(deadline());
    if (verdict.isGood() && m_session->identity() == Lookup::Identity::Unconfirmed) {
        m_report.warned(m_step, "the server does not say: 'not found' rests on the bind alone",
                        watch.milliseconds());
        return true;
    }
    return take(verdict, m_session->authorizationId(), watch);
}

// What is there

bool ServerCheck::readRootDse()
{
    Stopwatch const watch;
    SearchEnd const end =
        search(std::string(),
               {LDAPAttributeType("vendorName"), LDAPAttributeType("vendorVersion"),
                LDAPAttributeType("namingContexts"), LDAPAttributeType("supportedLDAPVersion")});
    bool const isThere = end.verdict.isGood() && !end.result.searchResultEntries().empty();
    if (end.verdict.outcome == Lookup::Outcome::TryLater) {
        return take(end.verdict, "", watch);
    }
    if (isThere) {
        m_report.passed(m_step, shown(end.result.searchResultEntries().front()),
                        watch.milliseconds());
    } else { // hidden from us, which is no harm
        m_report.passed(m_step, "the server does not show it", watch.milliseconds());
    }
    return true;
}

bool ServerCheck::findBase()
{
    if (m_settings.base.empty()) {
        m_report.skipped(m_step, "none is given (-b)");
        return true;
    }
    Stopwatch const watch;
    SearchEnd const end = search(m_settings.base, {LDAPAttributeType("1.1")});
    if (end.verdict.isGood() && end.result.searchResultEntries().empty()) {
        m_report.warned(
            m_step, fmt::format("{} is not shown to us; what is below it may be", m_settings.base),
            watch.milliseconds());
        return true;
    }
    return take(end.verdict, m_settings.base, watch);
}

/// Reads one entry.
ServerCheck::SearchEnd ServerCheck::search(std::string const& base,
                                           std::list<LDAPAttributeType> const& attributes)
{
    LDAPSearch::Parameter parameter(base);
    parameter.filter = "(objectClass=*)";
    parameter.scope = LDAPSearch::ScopeBase;
    parameter.attributes = attributes;

    SearchEnd end;
    int id = 0;
    end.verdict = m_session->send(parameter, id);
    if (end.verdict.isGood()) {
        end.result = LDAPResult(m_session->connection());
        end.verdict = collect(end.result);
    }
    return end;
}

/// Receives the answer to the one search under way.
Verdict ServerCheck::collect(LDAPResult& result)
{
    constexpr int searchResult = 4;
    auto const last = deadline();
    LDAPMessageBuffer message;
    while (result.resultType() != searchResult) {
        auto const left = std::chrono::ceil<milliseconds>(last - Clock::now());
        int const received = m_session->receive(message, std::max(left, milliseconds(0)));
        if (received <= 0) {
            bool const isSilent = received == 0;
            return Verdict{Lookup::Outcome::TryLater, isSilent ? LDAP_TIMEOUT : LDAP_SERVER_DOWN,
                           isSilent ? "no answer in time" : "the connection broke"};
        }
        try {
            result.impl()->parseMessage(message);
        } catch (LDAPException const& fault) { // also of a referral, with its code
            if (result.resultCode() == LDAP_SUCCESS) {
                return Verdict{Lookup::Outcome::TryLater, LDAP_DECODING_ERROR,
                               "the answer cannot be read: " + fault.stringParameter()};
            }
        }
    }
    int const code = result.resultCode();
    return Verdict{Lookup::outcomeOfSearch(code), code,
                   code == LDAP_SUCCESS ? std::string()
                                        : fmt::format("{} ({})", result.errorMessage(), code)};
}

// Lookups

bool ServerCheck::probe()
{
    if (!requireKey()) {
        return true;
    }
    try {
        m_lookup = std::make_unique<LDAPLookup>(m_settings);
    } catch (LDAPException const& fault) {
        m_report.failed(m_step, Outcome::configuration, fault.stringParameter(),
                        "correct the settings");
        return false;
    }
    return take(m_lookup->find(m_probe.key));
}

bool ServerCheck::probeAgain()
{
    if (!requireKey()) {
        return true;
    }
    auto const answer = m_lookup->find(m_probe.key);
    if (outcomeOf(answer) > Outcome::notFound) {
        return take(answer);
    }
    if (m_lookup->statistics().reused == 0) {
        m_report.warned(m_step, "the connection was not kept for a second lookup",
                        answer.milliseconds);
    } else {
        m_report.passed(m_step, "a second lookup took the connection of the first",
                        answer.milliseconds);
    }
    return true;
}

bool ServerCheck::measure()
{
    if (!requireKey()) {
        return true;
    }
    if (m_probe.repeat == 0) {
        m_report.skipped(m_step, "not asked for (--repeat)");
        return true;
    }
    Stopwatch const watch;
    Histogram latencies;
    for (unsigned int i = 0; i < m_probe.repeat; ++i) {
        auto const answer = m_lookup->find(m_probe.key);
        if (outcomeOf(answer) > Outcome::notFound) {
            return take(answer);
        }
        latencies.add(answer.milliseconds);
    }
    m_report.passed(m_step, latencies.summary(), watch.milliseconds());
    for (std::string const& bar : latencies.bars()) {
        m_report.detail(bar);
    }
    return true;
}

bool ServerCheck::requireKey()
{
    if (!m_probe.obstacle.empty()) {
        m_report.skipped(m_step, m_probe.obstacle);
    }
    return m_probe.obstacle.empty();
}

/// Reports an answer. False: the server cannot be used.
bool ServerCheck::take(LDAPLookup::Answer const& answer)
{
    Outcome const outcome = outcomeOf(answer);
    if (outcome == Outcome::found) {
        m_report.passed(m_step,
                        fmt::format("'{}': {} found, {}", m_probe.key, answer.entries.size(),
                                    answer.entries.front().entryName()),
                        answer.milliseconds);
    } else if (outcome == Outcome::notFound) {
        m_report.warned(m_step, fmt::format("'{}': nobody found", m_probe.key), answer.milliseconds,
                        outcome);
    } else {
        m_report.failed(m_step, outcome, withoutUri(answer.text), remedyFor(answer),
                        answer.milliseconds);
    }
    return outcome <= Outcome::notFound;
}

/// Reports a verdict, a good one with `text`.
bool ServerCheck::take(Verdict const& verdict, std::string const& text, Stopwatch const& watch)
{
    if (verdict.isGood()) {
        m_report.passed(m_step, text, watch.milliseconds());
    } else {
        m_report.failed(m_step, outcomeOf(verdict), withoutUri(verdict.text), remedyFor(verdict),
                        watch.milliseconds());
    }
    return verdict.isGood();
}

std::unique_ptr<DirectorySession> ServerCheck::session(TlsVerify verify) const
{
    Lookup::TlsPolicy tls = m_settings.tls;
    tls.verify = verify;
    return std::make_unique<DirectorySession>(m_description, m_server.host, tls);
}

/// The report names the server already.
std::string ServerCheck::withoutUri(std::string const& text) const
{
    std::string const prefix = m_uri + ": ";
    return text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
}

Clock::time_point ServerCheck::deadline() const { return Clock::now() + m_settings.deadline; }

} // namespace Solvane::Tool
