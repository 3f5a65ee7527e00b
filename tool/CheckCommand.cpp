// The "check" command: settings and template first, then each server.
#include "Commands.h"

#include "CheckReport.h"
#include "LookupSettings.h"
#include "OptionList.h"
#include "Outcome.h"
#include "Secret.h"
#include "ServerCheck.h"
#include "Sessions.h"
#include "Text.h"
#include "TlsCheck.h"

#include <solvane/ldap/LDAPException.h>

#include <fmt/format.h>

#include <algorithm>

namespace Solvane::Tool {

namespace {

constexpr unsigned int mostRepeats = 100000;

constexpr char footer[] =
    "Each step prints a line: ok, warning, FAILED, or '-' if it was skipped; its time; and\n"
    "the result, or the cause and the remedy. Steps: settings, template and, if a server uses\n"
    "TLS, each part of its policy (verification, version, ciphers, authorities, revocation\n"
    "lists, client certificate) with its origin; then for each server resolution, TCP or\n"
    "socket, StartTLS, TLS (version, certificate, name, chain, revocation), bind or SASL, who\n"
    "am I, root DSE, base, references below it, schema, a lookup of the address, a second one\n"
    "on the same connection, latencies. A domain has the step SRV before its servers.\n\n"
    "Exit status, the worst of all steps:\n"
    "   0  all passed, with or without warnings\n"
    "   1  no entry for the address of --probe\n"
    "  64  usage error\n"
    "  65  invalid template or filter\n"
    "  69  refused permanently, or referred to another server\n"
    "  74  cannot write to standard output\n"
    "  75  try later: a server is down, or does not answer in time\n"
    "  77  credentials, access or certificate refused\n"
    "  78  base missing, or an unusable setting, file or password\n"
    "With --nagios: 0 OK; 1 WARNING, for example a certificate that expires within 14 days,\n"
    "or one of several servers down; 2 CRITICAL; 3 UNKNOWN: unusable settings.";

std::string described(LDAPLookup::Settings const& settings)
{
    return fmt::format("{} server{}, {}, network timeout {} s, deadline {} s",
                       settings.servers.size(), settings.servers.size() == 1 ? "" : "s",
                       identityIn(settings), settings.networkTimeout,
                       static_cast<double>(settings.deadline.count()) / 1000);
}

/// Reports every finding in the template. Returns false if no lookup can succeed with it.
bool checkTemplate(Lookup::QueryTemplate const& queryTemplate, CheckReport& report)
{
    using Weight = Lookup::QueryTemplate::Finding::Weight;
    Stopwatch const watch;
    auto const findings = queryTemplate.check();
    bool isUsable = true;
    for (auto const& finding : findings) {
        std::string const text = fmt::format("at byte {}: {}", finding.position, finding.text);
        if (finding.weight == Weight::error) {
            isUsable = false;
            report.failed("template", Outcome::badInput, text, "run 'solvane-ldap expand --lint'");
        } else {
            report.warned("template", text);
        }
    }
    if (findings.empty()) {
        report.passed("template", queryTemplate.text(), watch.milliseconds());
    }
    return isUsable;
}

/// Expands a row of the server list into servers. A domain reports the step SRV; if it has no
/// servers, it counts as a server that is down.
std::vector<LDAPLookup::Server> resolved(LDAPLookup::Server const& listed,
                                         LDAPLookup::Settings const& settings, CheckReport& report)
{
    Stopwatch const watch;
    auto const deadline = Lookup::Clock::now() + settings.deadline;
    ServersFound found = serversOf(listed, settings, deadline);
    if (listed.srvDomain.empty()) {
        return std::move(found.servers);
    }
    if (!found.verdict.isGood()) {
        report.beginServer(listed.srvDomain);
        report.failed("SRV", outcomeOf(found.verdict), found.verdict.text,
                      "check the domain in -H and the name servers", watch.milliseconds());
        report.endServer();
        return {};
    }
    std::string text;
    for (LDAPLookup::Server const& server : found.servers) {
        text += fmt::format("{} {} port {}", text.empty() ? listed.srvDomain + ":" : ",",
                            server.host, server.port);
    }
    report.passed("SRV", text, watch.milliseconds());
    return std::move(found.servers);
}

} // namespace

void CheckCommand::declareOn(OptionList& options)
{
    m_settings.declareOn(options, Setting::Group::search);
    m_settings.declareOn(options, Setting::Group::queryTemplate);
    options.value("--probe", m_probe, "KEY", "Look up this address on each server");
    options.value("--repeat", m_repeat, numberBetween(0, mostRepeats), "N",
                  "Repeat the lookup N times and show latencies");
    options.flag("--nagios", m_isForNagios,
                 "Print one line and set the exit status for a monitoring system");
    options.footer(footer);
}

int CheckCommand::run(CommonOptions const& common, Output& output, Diagnostics&)
{
    Stopwatch const watch;
    auto const figures = [&watch] { return fmt::format("time={:.1f}ms", watch.milliseconds()); };
    CheckReport report(m_isForNagios ? nullptr : &output);
    try {
        check(common, report);
    } catch (Failure const& failure) {
        if (!m_isForNagios || failure.outcome() == Outcome::outputFailed) {
            throw;
        }
        auto const unknown = CheckReport::State::unknown;
        output.write(CheckReport::line(unknown, failure.what(), figures()));
        return static_cast<int>(unknown);
    }
    if (m_isForNagios) {
        output.write(report.line(figures()));
        return static_cast<int>(report.state());
    }
    return exitStatusOf(report.worst());
}

void CheckCommand::check(CommonOptions const& common, CheckReport& report)
{
    if (m_repeat.value_or(0) > 0 && m_probe.empty()) {
        throw Failure(Outcome::usage, "--repeat needs an address to look up",
                      "give one with --probe");
    }
    Stopwatch const watch;
    Secret password;
    Draft draft = common.draft();
    m_settings.applyTo(draft);
    completeBase(draft);
    LDAPLookup::Settings settings = common.settings(draft, password);
    report.passed("settings", described(settings), watch.milliseconds());
    Lookup::Session::initializeOpenLdap();

    Probe probe = {m_probe, m_repeat.value_or(0), std::string(), {}};
    if (!hasTemplate(draft)) {
        report.skipped("template", "no template given (-t)");
    } else if (!checkTemplate(templateOf(draft), report)) {
        probe.obstacle = "'template' failed";
    }
    if (m_probe.empty()) {
        probe.obstacle = "no address given (--probe)";
    } else if (!hasTemplate(draft) || settings.base.empty()) {
        probe.obstacle = "a lookup needs a base (-b) and a template (-t)";
    }
    probe.attributes = attributesOf(draft);
    auto const usesTls = [](LDAPLookup::Server const& server) { return server.usesTls(); };
    if (std::any_of(settings.servers.begin(), settings.servers.end(), usesTls)) {
        checkTls(settings.tls, report);
    }
    for (LDAPLookup::Server const& listed : settings.servers) {
        for (LDAPLookup::Server const& server : resolved(listed, settings, report)) {
            ServerCheck(settings, server, probe, report).run();
        }
    }
    wipe(settings.password);
}

} // namespace Solvane::Tool
