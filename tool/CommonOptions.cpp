// The options of every subcommand: servers, identity, TLS, diagnostics and the form of the output.
#include "Options.h"

#include "Failure.h"
#include "OpenLDAP.h"
#include "OptionValues.h"
#include "RecordWriter.h"
#include "Text.h"

#include <fmt/format.h>

#include <unistd.h>

namespace Solvane::Tool {

namespace {

// OpenLDAP's debug levels that print the bytes of requests, and so a bind's password: packets and
// BER. They are in no installed header.
constexpr int revealingLevels = 0x02 | 0x10;
constexpr unsigned int everyLevel = 0xFFFF;

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

unsigned int networkTimeoutIn(std::string const& text)
{
    constexpr std::string_view name = "nettimeout=";
    if (text.compare(0, name.size(), name) != 0) {
        refuse(fmt::format("'{}' is not offered", text), "-o takes nettimeout=SECONDS");
    }
    return numberIn(text.substr(name.size()), 1, longestSeconds);
}

int descriptorIn(std::string const& text)
{
    try {
        return static_cast<int>(numberIn(text, 0, 1000000));
    } catch (Failure const&) {
        // What was given is not shown: it may be the password itself.
        refuse("it takes the number of a descriptor",
               "open it first, as in --password-fd 3 3<FILE");
    }
}

int debugLevelIn(std::string const& text)
{
    return static_cast<int>(text == "any" || text == "-1" ? everyLevel
                                                          : numberIn(text, 0, everyLevel));
}

/// A flag without a value is "true" to CLI11.
std::string complaintAboutStats(std::string const& text)
{
    return text == "true" || text == "json" ? "" : oneLine(text) + " is no form of the figures";
}

std::string bindDnIn(std::string const& text)
{
    if (text.empty()) {
        refuse("it names no DN", "leave -D out to ask anonymously");
    }
    return dnIn(text);
}

} // namespace

void CommonOptions::declareOn(CLI::App& app)
{
    addValue(app, "-C,--config", m_settingsPath, textIn, "FILE",
             "Settings, see solvane-ldap.conf(5); options override them");
    declareServersOn(app);
    declareIdentityOn(app);
    declareDiagnosticsOn(app);
    declareOutputOn(app);
}

void CommonOptions::declareServersOn(CLI::App& app)
{
    // Read one by one: a list would also take the arguments behind it.
    app.add_option_function<std::vector<std::string>>(
           "-H,--uri", [this](std::vector<std::string> const& texts) { readServers(texts); },
           "A server, ldap[s]://host[:port]; given again: who is asked when it fails")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false)
        ->type_name("URI");
    addValue(app, "-P,--protocol", m_version, protocolIn, "2|3", "LDAP protocol version")
        ->default_str("3");
    addValue(app, "-o", m_networkTimeout, networkTimeoutIn, "nettimeout=S",
             "Seconds to connect, and to wait for each answer")
        ->default_str("10");
    addValue(app, "--deadline", m_deadline, numberBetween(1, longestSeconds), "S",
             "Seconds for one key as a whole")
        ->default_str("15");
    addValue(app, "--tls-ca", m_caFile, textIn, "FILE",
             "PEM file of the authorities that may sign a server's certificate");
    addValue(app, "--tls-verify", m_tlsVerify, tlsVerifyIn, "none|chain|full",
             "How far the certificate behind ldaps:// is checked; full: also the host's name")
        ->default_str("full");
}

void CommonOptions::readServers(std::vector<std::string> const& texts)
{
    for (std::string const& text : texts) {
        explainedBy("-H", Outcome::usage, [&] { m_servers.emplace_back(text); });
    }
}

void CommonOptions::declareIdentityOn(CLI::App& app)
{
    addValue(app, "-D,--bind-dn", m_bindDn, bindDnIn, "DN", "Bind as this DN; else anonymously");
    auto* const prompt =
        app.add_flag("-W,--ask-password", m_asksPassword, "Ask for the password at the terminal");
    auto* const file = addValue(app, "-y,--password-file", m_passwordFile, textIn, "FILE",
                                "File that holds the password and that its owner alone can read; "
                                "one newline at its end is dropped");
    auto* const descriptor = addValue(app, "--password-fd", m_passwordDescriptor, descriptorIn, "N",
                                      "Descriptor from which the password is read to its end");
    prompt->excludes(file)->excludes(descriptor);
    file->excludes(descriptor);
}

void CommonOptions::declareDiagnosticsOn(CLI::App& app)
{
    auto* const verbose =
        app.add_flag("-v,--verbose", m_isVerbose, "Say on standard error what is done");
    app.add_flag("-q,--quiet", m_isQuiet, "Nothing on standard error; the exit status remains")
        ->excludes(verbose);
    addValue(app, "-d,--debug", m_debugLevel, debugLevelIn, "LEVEL",
             "OpenLDAP's own debug output, a sum of its levels or 'any'; what would print a bind's "
             "password stays off");
    app.add_flag("--stats", m_stats, "Figures at the end on standard error")
        ->check(CLI::Validator(complaintAboutStats, ""))
        ->type_name("[=json]");
}

void CommonOptions::declareOutputOn(CLI::App& app)
{
    app.add_option("--format", m_format, "Form of the records")
        ->check(CLI::IsMember(recordFormats()))
        ->type_name("")
        ->capture_default_str();
    declareOnCommand(app);
}

void CommonOptions::declareOnCommand(CLI::App& command)
{
    // CLI11 takes "-0" for a negative number where the subcommand itself has no such option.
    command.add_flag("-0,--null", m_endsInNul, "NUL instead of newline ends keys and records");
}

SettingsFile const& CommonOptions::file() const
{
    if (!m_file) {
        m_file = m_settingsPath ? std::make_unique<SettingsFile>(*m_settingsPath)
                                : std::make_unique<SettingsFile>();
    }
    return *m_file;
}

LDAPLookup::Settings CommonOptions::settings(Secret& password) const
{
    LDAPLookup::Settings settings = file().settings();
    applyServers(settings);
    settings.networkTimeout = m_networkTimeout.value_or(settings.networkTimeout);
    if (m_deadline) {
        settings.deadline = std::chrono::seconds(*m_deadline);
    }
    settings.tls.verify = m_tlsVerify.value_or(settings.tls.verify);
    settings.tls.caFile = m_caFile.value_or(settings.tls.caFile);
    applyIdentity(settings, password);
    return settings;
}

void CommonOptions::applyServers(LDAPLookup::Settings& settings) const
{
    if (!m_servers.empty()) {
        settings.servers.clear();
        for (ServerUri const& uri : m_servers) {
            settings.servers.push_back({uri.host, uri.port, uri.isSecure, file().version()});
        }
    }
    if (settings.servers.empty()) {
        refuse("there is no server", "name one with -H URI, or server_host in the file of -C");
    }
    for (LDAPLookup::Server& server : settings.servers) {
        server.version = m_version.value_or(server.version);
    }
}

void CommonOptions::applyIdentity(LDAPLookup::Settings& settings, Secret& password) const
{
    settings.bindDn = m_bindDn.value_or(settings.bindDn);
    if (settings.bindDn.empty()) {
        if (namesPassword()) {
            refuse("there is a password but nobody to bind as", "add -D DN, or bind_dn in the file "
                                                                "of -C");
        }
        return;
    }
    readPassword(password, settings.bindDn);
    settings.password = password.text();
}

void CommonOptions::readPassword(Secret& password, std::string const& dn) const
{
    if (m_asksPassword) {
        return password.ask(dn);
    }
    if (m_passwordFile) {
        return password.readFile(*m_passwordFile);
    }
    if (m_passwordDescriptor) {
        return password.readDescriptor(*m_passwordDescriptor);
    }
    // The password of the file goes with its DN, and to nobody else.
    if (m_bindDn || file().password().isEmpty()) {
        refuse(fmt::format("{} needs a password", m_bindDn ? "-D" : "bind_dn"),
               "add -W, -y FILE or --password-fd N");
    }
    password.assign(file().password().text(), "the password");
}

bool CommonOptions::namesPassword() const
{
    return m_asksPassword || m_passwordFile || m_passwordDescriptor;
}

Diagnostics::Level CommonOptions::level() const
{
    if (m_isVerbose) {
        return Diagnostics::Level::verbose;
    }
    return m_isQuiet ? Diagnostics::Level::quiet : Diagnostics::Level::normal;
}

Stats CommonOptions::stats() const
{
    if (m_stats.empty()) {
        return Stats::none;
    }
    return m_stats == "json" ? Stats::json : Stats::text;
}

bool CommonOptions::readsStandardInput() const { return m_passwordDescriptor == STDIN_FILENO; }

void CommonOptions::debugOpenLDAP(Diagnostics const& diagnostics) const
{
    if (!m_debugLevel) {
        return;
    }
    int level = *m_debugLevel;
    bool const mayReveal = namesPassword() || !file().password().isEmpty();
    if (mayReveal && (level & revealingLevels) != 0) {
        level &= ~revealingLevels;
        diagnostics.error(fmt::format("-d: the levels {} would print the password; they stay off",
                                      revealingLevels));
    }
    ber_set_option(nullptr, LBER_OPT_DEBUG_LEVEL, &level);
    ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level);
}

} // namespace Solvane::Tool
