// Declares the options, and applies them. What neither they nor the settings file say comes from OpenLDAP's
// configuration.
#include "Options.h"

#include "OpenLDAP.h"
#include "OptionList.h"
#include "Outcome.h"
#include "RecordWriter.h"
#include "SettingValues.h"
#include "Text.h"

#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <unistd.h>

namespace Solvane::Tool {

namespace {

// OpenLDAP's debug levels "packets" and "BER" print the bytes of requests, including a bind's
// password. No installed header defines them.
constexpr int revealingLevels = 0x02 | 0x10;
constexpr unsigned int everyLevel = 0xFFFF;

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

int descriptorIn(std::string const& text)
{
    try {
        return static_cast<int>(numberIn(text, 0, 1000000));
    } catch (Failure const&) {
        // The value is not shown: it may be the password itself.
        refuse("invalid file descriptor number",
               "pass the number of an open one, as in --password-fd 3 3<FILE");
    }
}

int debugLevelIn(std::string const& text)
{
    return static_cast<int>(text == "any" || text == "-1" ? everyLevel
                                                          : numberIn(text, 0, everyLevel));
}

/// CLI11 passes "true" for a flag without a value.
std::string complaintAboutStats(std::string const& text)
{
    return text == "true" || text == "json" ? "" : "unsupported format '" + oneLine(text) + '\'';
}

/// A process-wide option of OpenLDAP: of ldap.conf, ~/.ldaprc or an environment variable LDAP...
std::string configured(int option)
{
    LDAPCharBuffer text;
    ldap_get_option(nullptr, option, text.address());
    return text.get() == nullptr ? std::string() : std::string(text.get());
}

/// The servers of LDAPURI or URI; empty if neither is set.
std::vector<std::string> configuredUris()
{
    // Without a setting, OpenLDAP has a URI of its own, with a scope that no setting keeps.
    constexpr char unset[] = "ldap://localhost:389/??base";
    std::string const uris = configured(LDAP_OPT_URI);
    return uris == unset ? std::vector<std::string>() : serversIn(uris);
}

/// The base of LDAPBASE or BASE; empty if neither is set.
std::string configuredBase() { return configured(LDAP_OPT_DEFBASE); }

/// The servers of OpenLDAP's configuration.
std::vector<LDAPLookup::Server> configuredServers(Draft const& draft)
{
    Draft alone = draft;
    alone.hosts = configuredUris();
    return explainedBy("LDAPURI", Outcome::configuration, [&] { return alone.serverList(); });
}

} // namespace

void SettingOptions::declareOn(OptionList& options, Setting::Group group)
{
    for (Setting const& setting : settingsTable()) {
        if (setting.group == group && setting.value.fromOption) {
            declareOn(options, setting, setting.help);
        }
    }
}

void SettingOptions::declareOn(OptionList& options, Setting const& setting, char const* help)
{
    DeclaredOption option = declared(options, setting, help);
    for (Setting const& other : settingsTable()) { // declared before it
        if (&other == &setting) {
            break;
        }
        if (other.name == std::string_view(setting.name)) {
            std::string_view const names = other.options;
            option.excludes(options.declared(std::string(names.substr(names.rfind(',') + 1))));
        }
    }
}

DeclaredOption SettingOptions::declared(OptionList& options, Setting const& setting,
                                        char const* help)
{
    if (std::string_view(setting.shape).empty()) {
        return options.flag(
            setting.options, [this, &setting] { take(setting, "yes"); }, help);
    }
    auto const each = [this, &setting](std::string const& text) { take(setting, text); };
    DeclaredOption option = setting.isList
                                ? options.values(setting.options, each, setting.shape, help)
                                : options.value(setting.options, each, setting.shape, help);
    return option.showsDefault(setting.defaultText());
}

void SettingOptions::take(Setting const& setting, std::string const& text)
{
    std::string_view const options = setting.options;
    std::string const shown(options.substr(0, options.find(',')));
    m_given.emplace_back(&setting, explainedBy(shown, Outcome::usage,
                                               [&] { return setting.value.fromOption(text); }));
}

bool SettingOptions::has(std::string_view name) const
{
    return std::any_of(m_given.begin(), m_given.end(),
                       [&](auto const& given) { return given.first->name == name; });
}

void SettingOptions::applyTo(Draft& draft) const
{
    for (auto const& [setting, assign] : m_given) {
        assign(draft);
        draft.given.insert(setting->name);
    }
}

void KeyOptions::declareOn(OptionList& options)
{
    m_arguments = options.arguments("ADDRESS",
                                    "E-mail address, split at its last '@'; put -- before one that "
                                    "begins with '-'");
    m_fileOption = options.value("-f,--file", m_file, "FILE",
                                 "File with one address per line, '-' for standard input");
}

bool KeyOptions::isGiven() const { return m_arguments.count() != 0 || m_fileOption.count() != 0; }

void KeyOptions::check() const
{
    if (!isGiven()) {
        throw Failure(Outcome::usage, "no address given",
                      "give addresses as arguments, or a file of them with -f");
    }
    if (m_arguments.count() != 0 && m_fileOption.count() != 0) {
        throw Failure(Outcome::usage, "addresses are given both as arguments and with -f",
                      "use one of the two");
    }
}

bool KeyOptions::readsStandardInput() const { return m_file == "-"; }

LDAPLookup::Supply KeyOptions::next(std::string& key, bool mayWait)
{
    if (m_fileOption.count() != 0) {
        return reader().next(key, mayWait);
    }
    auto const& arguments = m_arguments.texts();
    if (m_used == arguments.size()) {
        return LDAPLookup::Supply::end;
    }
    key = arguments[m_used++];
    return LDAPLookup::Supply::key;
}

int KeyOptions::descriptor()
{
    return m_fileOption.count() != 0 && !reader().isRegular() ? reader().descriptor() : -1;
}

std::optional<unsigned long> KeyOptions::total()
{
    if (m_fileOption.count() != 0) {
        return reader().count();
    }
    return m_arguments.count();
}

LineReader& KeyOptions::reader()
{
    if (!m_reader) {
        m_reader = std::make_unique<LineReader>("the file of keys", m_file, m_separator);
    }
    return *m_reader;
}

void CommonOptions::declareOn(OptionList& options)
{
    options.value("-C,--config", m_settingsPath, textIn, "FILE",
                  "Settings file, see solvane-ldap.conf(5); options override it");
    m_settings.declareOn(options, Setting::Group::server);
    declareIdentityOn(options);
    declareDiagnosticsOn(options);
    declareOutputOn(options);
}

void CommonOptions::declareIdentityOn(OptionList& options)
{
    m_settings.declareOn(options, Setting::Group::identity);
    auto prompt =
        options.flag("-W,--ask-password", m_asksPassword, "Ask for the password at the terminal");
    auto file = options.value("-y,--password-file", m_passwordFile, textIn, "FILE",
                              "Read the password from a file that others cannot read; "
                              "one trailing newline is removed");
    auto const descriptor =
        options.value("--password-fd", m_passwordDescriptor, descriptorIn, "N",
                      "Read the password from this file descriptor, to its end");
    prompt.excludes(file).excludes(descriptor);
    file.excludes(descriptor);
}

void CommonOptions::declareDiagnosticsOn(OptionList& options)
{
    auto const verbose =
        options.flag("-v,--verbose", m_isVerbose, "Describe each step on standard error");
    options.flag("-q,--quiet", m_isQuiet, "Print no messages on standard error").excludes(verbose);
    options.value(
        "-d,--debug", m_debugLevel, debugLevelIn, "LEVEL",
        "OpenLDAP's own debug output: a sum of its levels, or 'any'; levels that would print "
        "the password stay off");
    options.flag("--stats", m_stats, "[=json]", "Print statistics on standard error at the end")
        .check(complaintAboutStats);
}

void CommonOptions::declareOutputOn(OptionList& options)
{
    options.value("--format", m_format, "", "Output format of the records")
        .oneOf(recordFormats())
        .showsDefault();
    declareOnCommand(options);
}

void CommonOptions::declareOnCommand(OptionList& options)
{
    // CLI11 reads "-0" as a negative number unless the subcommand itself declares it.
    options.flag("-0,--null", m_endsInNul, "End keys and records by NUL instead of newline");
}

SettingsFile const& CommonOptions::file() const
{
    if (!m_file) {
        m_file = m_settingsPath ? std::make_unique<SettingsFile>(*m_settingsPath)
                                : std::make_unique<SettingsFile>();
    }
    return *m_file;
}

Draft CommonOptions::draft() const
{
    Draft draft = file().draft();
    m_settings.applyTo(draft);
    return draft;
}

LDAPLookup::Settings CommonOptions::settings(Draft const& draft, Secret& password) const
{
    LDAPLookup::Settings settings = draft.lookup;
    settings.servers = draft.serverList();
    if (settings.servers.empty()) {
        settings.servers = configuredServers(draft);
    }
    if (settings.servers.empty()) {
        refuse("no server given",
               "add -H URI, or set server_host in the settings file (-C), or LDAPURI");
    }
    completeIdentity(settings);
    if (!settings.bindDn.empty()) {
        readPassword(password, settings.bindDn);
        settings.password = password.text();
    } else if (namesPassword()) {
        refuse("a password is given, but no DN to bind as",
               "add -D DN, or set bind_dn in the settings file (-C)");
    }
    return settings;
}

/// Drops what does not apply to the kind of bind. An option counts more than the settings file; two
/// of the same place contradict each other.
void CommonOptions::completeIdentity(LDAPLookup::Settings& settings) const
{
    if (settings.mechanism == Lookup::Mechanism::simple) {
        if (!settings.authorizationId.empty()) {
            throw Failure(m_settings.has("sasl_authz_id") ? Outcome::usage : Outcome::configuration,
                          "an identity to act as (-X, sasl_authz_id) needs a SASL bind",
                          "add -Y external or -Y gssapi");
        }
        return;
    }
    bool const isOption = m_settings.has("sasl_mechanism");
    bool const hasOption = m_settings.has("bind_dn") || namesPassword();
    if (hasOption || (!isOption && !settings.bindDn.empty())) {
        throw Failure(isOption || hasOption ? Outcome::usage : Outcome::configuration,
                      "a SASL bind (-Y, sasl_mechanism) has no DN and no password",
                      "omit them, or add -x for a simple bind");
    }
    settings.bindDn.clear();
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
    // The file's password belongs to the file's DN: it is not sent with the DN of -D.
    bool const hasOtherDn = m_settings.has("bind_dn");
    if (hasOtherDn || file().password().isEmpty()) {
        refuse(fmt::format("{} needs a password", hasOtherDn ? "-D" : "bind_dn"),
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

void CommonOptions::requireTextOrJson(char const* command) const
{
    if (m_format != "text" && m_format != "json") {
        throw Failure(Outcome::usage,
                      fmt::format("{} does not support --format {}", command, m_format),
                      "choose text or json");
    }
}

bool CommonOptions::readsStandardInput() const { return m_passwordDescriptor == STDIN_FILENO; }

void CommonOptions::debugOpenLDAP(Diagnostics const& diagnostics, bool sendsPassword) const
{
    if (!m_debugLevel) {
        return;
    }
    int level = *m_debugLevel;
    bool const mayReveal = sendsPassword || namesPassword() || !file().password().isEmpty();
    if (mayReveal && (level & revealingLevels) != 0) {
        level &= ~revealingLevels;
        diagnostics.error(
            fmt::format("-d: levels {} would print the password; they stay off", revealingLevels));
    }
    ber_set_option(nullptr, LBER_OPT_DEBUG_LEVEL, &level);
    ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level);
}

void completeBase(Draft& draft)
{
    if (draft.has("search_base")) {
        return;
    }
    if (std::string const base = configuredBase(); !base.empty()) {
        draft.lookup.base =
            explainedBy("LDAPBASE", Outcome::configuration, [&] { return dnIn(base); });
        draft.given.insert("search_base");
    }
}

void requireBase(Draft& draft)
{
    completeBase(draft);
    if (!draft.has("search_base")) {
        refuse("no search base given",
               "add -b BASE, or set search_base in the settings file (-C), or LDAPBASE");
    }
}

} // namespace Solvane::Tool
