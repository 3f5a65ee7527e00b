// Checks one server, from its host name to an answer.
#include "ServerCheck.h"

#include "CheckReport.h"
#include "OpenLDAP.h"
#include "Text.h"
#include "TlsCheck.h"

#include <solvane/ldap/LDAPException.h>

#include <solvart/StringHelpers.h>

#include <fmt/format.h>

#include <algorithm>
#include <deque>

namespace Solvane::Tool {

using Lookup::Address;
using Lookup::Clock;
using Lookup::Session;
using Lookup::TlsContext;
using Lookup::TlsVerify;
using Lookup::Verdict;

namespace {

constexpr char noAttributes[] = "1.1";  // RFC 4511 section 4.5.1.8
constexpr int certificateRefused = -11; // code of a Lookup::Verdict

bool isSameName(std::string const& left, std::string const& right)
{
    return copyStringToLower(left) == copyStringToLower(right);
}

/// The entry that an alias stands for (RFC 4512 section 2.6); empty if the entry is no alias.
std::string aliasedBy(LDAPSearchResultEntry const& entry)
{
    auto const classes = valuesOf(entry, "objectClass");
    bool const isAlias = std::any_of(classes.begin(), classes.end(), [](std::string const& each) {
        return isSameName(each, "alias");
    });
    auto const targets = valuesOf(entry, "aliasedObjectName");
    return isAlias && !targets.empty() ? targets.front() : std::string();
}

std::string shown(LDAPSearchResultEntry const& entry)
{
    std::string text;
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        text += fmt::format("{}{}: {}", text.empty() ? "" : "; ", attribute.type().asString(),
                            joined(attribute.value(), ", "));
    }
    return text;
}

} // namespace

struct ServerCheck::Step {
    char const* name;
    bool (ServerCheck::*take)();
    bool (ServerCheck::*applies)() const;
};

ServerCheck::ServerCheck(LDAPLookup::Settings const& settings, LDAPLookup::Server const& server,
                         Probe const& probe, CheckReport& report)
    : m_settings(settings), m_server(server), m_probe(probe), m_report(report)
{
    m_settings.servers = {server};
    if (usesTls()) {
        m_tls = std::make_shared<TlsContext>(settings.tls);
    }
    auto tls = m_tls;
    if (m_tls && !m_tls->verdict().isGood()) { // still connect, to show the certificate
        Lookup::TlsPolicy lenient;
        lenient.verify = TlsVerify::none;
        tls = std::make_shared<TlsContext>(lenient);
    }
    m_session = std::make_unique<Session>(sessionOptions(m_settings, server, tls));
    m_uri = m_session->uri();
}

ServerCheck::~ServerCheck() { wipe(m_settings.password); }

void ServerCheck::run()
{
    // clang-format off
    static constexpr Step steps[] = {
        { "resolution",  &ServerCheck::resolve,          &ServerCheck::hasHost     },
        { "TCP",         &ServerCheck::reach,            &ServerCheck::hasHost     },
        { "socket",      &ServerCheck::reach,            &ServerCheck::hasSocket   },
        { "StartTLS",    &ServerCheck::startTls,         &ServerCheck::startsTls   },
        { "TLS",         &ServerCheck::shakeHands,       &ServerCheck::usesTls     },
        { "certificate", &ServerCheck::judgeCertificate, &ServerCheck::usesTls     },
        { "name",        &ServerCheck::judgeName,        &ServerCheck::usesTls     },
        { "chain",       &ServerCheck::judgeChain,       &ServerCheck::usesTls     },
        { "revocation",  &ServerCheck::judgeRevocation,  &ServerCheck::readsLists  },
        { "bind",        &ServerCheck::bind,             &ServerCheck::bindsSimply },
        { "SASL",        &ServerCheck::bind,             &ServerCheck::bindsBySasl },
        { "who am I",    &ServerCheck::askIdentity,      &ServerCheck::isAny       },
        { "root DSE",    &ServerCheck::readRootDse,      &ServerCheck::isAny       },
        { "base",        &ServerCheck::findBase,         &ServerCheck::isAny       },
        { "references",  &ServerCheck::findReferences,   &ServerCheck::isAny       },
        { "schema",      &ServerCheck::checkSchema,      &ServerCheck::isAny       },
        { "probe",       &ServerCheck::probe,            &ServerCheck::isAny       },
        { "pool",        &ServerCheck::probeAgain,       &ServerCheck::isAny       },
        { "latency",     &ServerCheck::measure,          &ServerCheck::isAny       },
    };
    // clang-format on
    m_report.beginServer(m_uri);
    std::string obstacle;
    for (Step const& step : steps) {
        if (!(this->*step.applies)()) {
            continue;
        }
        m_step = step.name;
        if (!obstacle.empty()) {
            m_report.skipped(step.name, obstacle);
        } else if (!(this->*step.take)()) {
            obstacle = fmt::format("'{}' failed", step.name);
        }
    }
    m_report.endServer();
}

// Connecting

bool ServerCheck::resolve()
{
    Stopwatch const watch;
    Verdict const verdict = m_session->reach(Lookup::Step::resolve, deadline());
    if (!verdict.isGood()) {
        m_report.failed(m_step, outcomeOf(verdict), withoutUri(verdict.text),
                        verdict.outcome == Lookup::Outcome::Misconfigured
                            ? "correct the setting"
                            : "check the host name in -H and the name servers",
                        watch.milliseconds());
        return false;
    }
    std::vector<std::string> found;
    for (Address const& address : m_session->addresses()) {
        found.push_back(address.host());
    }
    m_report.passed(m_step, joined(found, ", "), watch.milliseconds());
    return true;
}

bool ServerCheck::reach()
{
    Stopwatch const watch;
    Verdict const verdict = m_session->reach(Lookup::Step::connect, deadline());
    if (!verdict.isGood()) {
        m_report.failed(m_step, outcomeOf(verdict), withoutUri(verdict.text),
                        hasHost()
                            ? "check that the server is running, the port, and firewalls in between"
                            : "check that the server is running and listens on this path (ldapi)",
                        watch.milliseconds());
        return false;
    }
    m_report.passed(m_step, hasHost() ? m_session->peer() : m_server.socketPath,
                    watch.milliseconds());
    if (hasHost()) {
        showOtherAddresses();
    }
    return true;
}

/// Tries the host's other addresses too, all at once: a dead one delays each connection.
void ServerCheck::showOtherAddresses()
{
    std::deque<Session> others;
    for (Address const& address : m_session->addresses()) {
        if (address.text() != m_session->peer()) {
            Lookup::SessionOptions alone = sessionOptions(m_settings, m_server, m_tls);
            alone.addresses = {address};
            others.emplace_back(std::move(alone));
            others.back().begin(Lookup::Step::connect, deadline());
        }
    }
    auto const isUnderWay = [](Session const& each) { return !each.isSettled(); };
    while (std::any_of(others.begin(), others.end(), isUnderWay)) {
        Lookup::Waits waits;
        for (Session const& each : others) {
            each.waits(waits);
        }
        waits.wait();
        for (Session& each : others) {
            each.advance();
        }
    }
    for (Session const& each : others) {
        m_report.detail(each.verdict().isGood() ? "also " + each.peer()
                                                : withoutUri(each.verdict().text));
    }
}

// TLS

bool ServerCheck::startTls()
{
    Stopwatch const watch;
    Verdict const verdict = m_session->reach(Lookup::Step::startTls, deadline());
    if (!verdict.isGood()) {
        bool const isTemporary = verdict.outcome == Lookup::Outcome::TryLater;
        m_report.failed(m_step, outcomeOf(verdict), withoutUri(verdict.text),
                        isTemporary ? remedyFor(verdict)
                                    : "configure a certificate on the server, or use ldaps://",
                        watch.milliseconds());
        return false;
    }
    m_report.passed(m_step, "the server accepts it", watch.milliseconds());
    return true;
}

/// Passes with a refused certificate: the following steps report what is wrong with it.
bool ServerCheck::shakeHands()
{
    Stopwatch const watch;
    m_handshake = m_session->reach(Lookup::Step::handshake, deadline());
    std::string const spoken = m_session->tlsVersion() + ", " + m_session->tlsCipher();
    if (m_handshake.code == certificateRefused && m_session->certificate()) {
        m_report.passed(m_step, spoken, watch.milliseconds());
        return true;
    }
    return take(m_handshake, spoken, watch);
}

bool ServerCheck::judgeCertificate()
{
    auto const& certificate = m_session->certificate();
    if (!certificate) {
        m_report.warned(m_step, "the server sent no valid certificate");
        return true;
    }
    auto const names = certificate->names();
    std::string const text = fmt::format("{}, for {}, {}", certificate->subject(),
                                         names.empty() ? "no names" : joined(names, ", "),
                                         expiryOf(certificate->notAfter()));
    if (endsSoon(certificate->notAfter())) {
        m_report.warned(m_step, text);
    } else {
        m_report.passed(m_step, text);
    }
    return true;
}

bool ServerCheck::judgeName()
{
    Stopwatch const watch;
    auto const& certificate = m_session->certificate();
    bool const isFor = certificate && certificate->isFor(m_server.host);
    judge(isFor, m_settings.tls.verify == TlsVerify::full,
          isFor ? fmt::format("the certificate matches '{}'", m_server.host)
                : fmt::format("the certificate does not match '{}'", m_server.host),
          "use one of the certificate's names in -H", watch);
    return true;
}

bool ServerCheck::judgeChain()
{
    Stopwatch const watch;
    Verdict const verdict = chainVerdict();
    bool const isDemanded = m_settings.tls.verify != TlsVerify::none;
    bool const isAboutTrust = verdict.isGood() || verdict.outcome == Lookup::Outcome::Refused;
    if (isDemanded && !isAboutTrust) {
        return take(verdict, "", watch);
    }
    judge(verdict.isGood(), isDemanded,
          verdict.isGood() ? "trusted by " + m_tls->policy().authorities()
                           : withoutUri(verdict.text),
          remedyFor(verdict), watch);
    return m_isTrusted;
}

/// A revoked certificate has failed the step before. Without a list of its issuer, it would not have.
bool ServerCheck::judgeRevocation()
{
    auto const& certificate = m_session->certificate();
    std::string const issuer = certificate ? certificate->issuer() : std::string();
    auto const lists = issuersOfRevocations(m_tls->policy().crlFile);
    if (std::find(lists.begin(), lists.end(), issuer) != lists.end()) {
        m_report.passed(m_step, "not revoked by " + issuer);
    } else {
        m_report.warned(
            m_step, fmt::format("there is no list of {}: its revocations are not known", issuer));
    }
    return true;
}

bool ServerCheck::readsLists() const
{
    return m_tls && m_settings.tls.verify != TlsVerify::none && !m_tls->policy().crlFile.empty();
}

/// The session's own verdict if it verified the chain alone; else that of a second session, which
/// verifies nothing but the chain.
Verdict ServerCheck::chainVerdict() const
{
    if (!m_tls->verdict().isGood()) {
        return m_tls->verdict();
    }
    TlsVerify const demanded = m_settings.tls.verify;
    if (demanded == TlsVerify::chain || (demanded == TlsVerify::full && m_handshake.isGood())) {
        return m_handshake;
    }
    Lookup::TlsPolicy policy = m_settings.tls;
    policy.verify = TlsVerify::chain;
    Lookup::SessionOptions options =
        sessionOptions(m_settings, m_server, std::make_shared<TlsContext>(policy));
    options.addresses = m_session->addresses();
    return Session(std::move(options)).reach(Lookup::Step::handshake, deadline());
}

/// Reports a check of the certificate: a failure if the settings require it, else a warning.
void ServerCheck::judge(bool isGood, bool isDemanded, std::string const& text,
                        std::string const& remedy, Stopwatch const& watch)
{
    if (isGood) {
        m_report.passed(m_step, text, watch.milliseconds());
    } else if (isDemanded) {
        m_isTrusted = false;
        m_report.failed(m_step, Outcome::denied, text, remedy, watch.milliseconds());
    } else {
        m_report.warned(m_step, text + "; not required by --tls-verify", watch.milliseconds());
    }
}

// Identity

bool ServerCheck::bind()
{
    Stopwatch const watch;
    Verdict const verdict = m_session->reach(Lookup::Step::bind, deadline());
    if (bindsBySasl()) {
        return take(verdict, identityIn(m_settings), watch);
    }
    bool const isReadable = hasHost() && !usesTls() && !m_settings.bindDn.empty();
    return take(verdict,
                identityIn(m_settings) + (isReadable ? "; the password is sent in clear text" : ""),
                watch);
}

bool ServerCheck::askIdentity()
{
    if (m_settings.isAnonymous()) {
        m_report.skipped(m_step, "anonymous");
        return true;
    }
    Stopwatch const watch;
    Verdict const verdict = m_session->reach(Lookup::Step::identify, deadline());
    if (verdict.isGood() && m_session->identity() == Lookup::Identity::Unconfirmed) {
        m_report.warned(m_step,
                        "the server does not confirm it: 'not found' relies on the bind alone",
                        watch.milliseconds());
        return true;
    }
    return take(verdict, m_session->authorizationId(), watch);
}

// Contents

bool ServerCheck::readRootDse()
{
    Stopwatch const watch;
    SearchEnd const end = search(
        std::string(), {"vendorName", "vendorVersion", "namingContexts", "supportedLDAPVersion"});
    if (end.verdict.outcome == Lookup::Outcome::TryLater) {
        return take(end.verdict, "", watch);
    }
    bool const isThere = end.verdict.isGood() && !end.entries.empty();
    // A hidden root DSE is harmless.
    m_report.passed(m_step, isThere ? shown(end.entries.front()) : "not readable",
                    watch.milliseconds());
    return true;
}

bool ServerCheck::findBase()
{
    if (!requireBase()) {
        return true;
    }
    Stopwatch const watch;
    SearchEnd const end = search(m_settings.base, {"objectClass", "aliasedObjectName"});
    if (end.verdict.isGood() && end.entries.empty()) {
        m_report.warned(m_step,
                        fmt::format("{} is not readable; entries below it may be", m_settings.base),
                        watch.milliseconds());
        return true;
    }
    std::string const target =
        end.verdict.isGood() ? aliasedBy(end.entries.front()) : std::string();
    if (!target.empty()) { // not dereferenced: else the server would have returned the target
        m_report.warned(m_step,
                        fmt::format("{} is an alias of {}: lookups find nothing below it; use that "
                                    "base, or dereference = find",
                                    m_settings.base, target),
                        watch.milliseconds());
        return true;
    }
    return take(end.verdict, m_settings.base, watch);
}

/// Looks for continuation references below the base. They mean that other servers hold parts of the
/// tree: an answer with references and no entry does not prove that an address is unknown.
bool ServerCheck::findReferences()
{
    if (!requireBase()) {
        return true;
    }
    Stopwatch const watch;
    Lookup::SearchRequest request;
    request.base = m_settings.base;
    request.scope = m_settings.scope;
    request.attributes = {noAttributes};
    SearchEnd const end =
        searchOn(*m_session, request, "(objectClass=referral)", silence(), deadline());
    std::string const found = end.references.empty()
                                  ? std::string("none below the base")
                                  : fmt::format("{} below the base, such as {}",
                                                end.references.size(), end.references.front());
    if (!end.verdict.isGood()) {
        m_report.warned(m_step, "the search failed: " + withoutUri(end.verdict.text),
                        watch.milliseconds());
    } else if (end.references.empty() || m_settings.references == Lookup::References::ignore) {
        m_report.passed(m_step, found, watch.milliseconds());
    } else {
        m_report.warned(m_step,
                        found + ": an address not found here may exist there, so the result is "
                                "'try later'; set references = ignore if none do",
                        watch.milliseconds());
    }
    return m_session->verdict().isGood();
}

/// Looks for the attributes of the template and of the list to return in the server's schema. With an
/// unknown one, every address is "not found".
bool ServerCheck::checkSchema()
{
    if (m_probe.attributes.empty()) {
        m_report.skipped(m_step, "no attributes named");
        return true;
    }
    Stopwatch const watch;
    LDAPSchema const known = schemaOf(*m_session, silence(), deadline());
    std::string unknown;
    for (std::string const& name : m_probe.attributes) {
        if (known.find(name) != nullptr) {
            continue;
        }
        std::string const similar = similarAttribute(known, name);
        unknown += fmt::format("{}'{}'{}", unknown.empty() ? "" : ", ", name,
                               similar.empty() ? "" : fmt::format(" (similar: '{}')", similar));
    }
    if (known.attributeTypes().empty()) {
        m_report.skipped(m_step, "not readable");
    } else if (!unknown.empty()) {
        m_report.warned(m_step, "the server does not know the attribute " + unknown,
                        watch.milliseconds());
    } else {
        m_report.passed(m_step, "the server knows " + joined(m_probe.attributes, ", "),
                        watch.milliseconds());
    }
    return m_session->verdict().isGood();
}

/// Reads one entry.
SearchEnd ServerCheck::search(std::string const& base, std::vector<std::string> const& attributes,
                              char const* filter)
{
    Lookup::SearchRequest request;
    request.base = base;
    request.scope = LDAP_SCOPE_BASE;
    request.deref = m_settings.deref;
    request.attributes = attributes;
    return searchOn(*m_session, request, filter, silence(), deadline());
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
        m_report.warned(m_step, "the second lookup needed a new connection", answer.milliseconds);
    } else {
        m_report.passed(m_step, "the second lookup reused the connection", answer.milliseconds);
    }
    return true;
}

bool ServerCheck::measure()
{
    if (!requireKey()) {
        return true;
    }
    if (m_probe.repeat == 0) {
        m_report.skipped(m_step, "no --repeat given");
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

bool ServerCheck::requireBase()
{
    bool const isOfKey = !Lookup::baseOfAllKeys(m_settings);
    if (isOfKey || m_settings.base.empty()) {
        m_report.skipped(m_step, isOfKey ? "made from the address" : "no base given (-b)");
        return false;
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

/// Reports an answer. Returns false if the lookup failed.
bool ServerCheck::take(LDAPLookup::Answer const& answer)
{
    Outcome const outcome = outcomeOf(answer);
    if (outcome == Outcome::found) {
        m_report.passed(m_step,
                        fmt::format("'{}': {} found, {}", m_probe.key, answer.entries.size(),
                                    answer.entries.front().entryName()),
                        answer.milliseconds);
    } else if (outcome == Outcome::notFound) {
        m_report.warned(m_step, fmt::format("'{}': not found", m_probe.key), answer.milliseconds,
                        outcome);
    } else {
        m_report.failed(m_step, outcome, withoutUri(answer.text), remedyFor(answer),
                        answer.milliseconds);
    }
    return outcome <= Outcome::notFound;
}

/// Reports a verdict; `text` describes a good one.
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

/// The text without the server's URI, which the report shows already.
std::string ServerCheck::withoutUri(std::string const& text) const
{
    std::string const prefix = m_uri + ": ";
    return text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
}

std::chrono::milliseconds ServerCheck::silence() const
{
    return std::chrono::seconds(m_settings.networkTimeout);
}

Clock::time_point ServerCheck::deadline() const { return Clock::now() + m_settings.deadline; }

} // namespace Solvane::Tool
