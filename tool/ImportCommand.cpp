// The "import" command: settings that ask a directory as one of Postfix's LDAP tables does
// (ldap_table(5)), and what differs.
#include "Commands.h"

#include "Files.h"
#include "OptionList.h"
#include "Outcome.h"
#include "ServerUri.h"
#include "SettingValues.h"
#include "SettingsFile.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>

#include <solvart/StringHelpers.h>

#include <fmt/format.h>
#include <gnutls/gnutls.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "Reads a table of Postfix's type ldap (ldap_table(5)) and writes settings that find the\n"
    "same values, for -C and for the maps of solvane-ldapd. Messages say what differs. If\n"
    "anything cannot be imported, all errors are reported and nothing is written.\n\n"
    "The file of --output has mode 600, as it may contain a password. --force keeps the group\n"
    "of a file, and its mode if others have no access. Standard output gets no password.\n\n"
    "Exit status: 0 imported, 64 usage error, 74 cannot write, 78 the table cannot be\n"
    "imported.";

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::configuration, cause, remedy);
}

std::string lower(std::string const& text) { return copyStringToLower(text); }

// Postfix's tables of domains

/// The output of a program; none if it cannot be run or fails. Its messages are dropped.
std::optional<std::string> outputOf(char const* program, std::vector<std::string> arguments)
{
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    Descriptor const reader(ends[0]);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    int const error = posix_spawnp(&child, program, &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) {
        return std::nullopt;
    }
    std::string output;
    std::array<char, 4096> part{};
    for (ssize_t count = 1; count > 0 || (count < 0 && errno == EINTR);) {
        count = ::read(reader.get(), part.data(), part.size());
        output.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? std::optional(output) : std::nullopt;
}

/// The keys of a table that are domains.
/// @throws Failure  "configuration": Postfix cannot list it
std::vector<std::string> domainsOfTable(std::string const& table)
{
    std::vector<std::string> const arguments = {"postmap", "-s", table};
    auto listed = outputOf("postmap", arguments);
    if (!listed) { // the path of most users lacks its folder
        listed = outputOf("/usr/sbin/postmap", arguments);
    }
    if (!listed) {
        refuse(fmt::format("the table '{}' cannot be read with 'postmap -s'", oneLine(table)),
               "list its domains here, or in a file");
    }
    std::vector<std::string> domains;
    std::string_view rest = *listed;
    while (!rest.empty()) {
        std::string_view const line = rest.substr(0, rest.find('\n'));
        std::string const key(line.substr(0, line.find('\t')));
        if (isDomain(key) && key == lower(key)) { // no other can match
            domains.push_back(key);
        }
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    }
    if (domains.empty()) {
        refuse(fmt::format("the table '{}' has no domain, so no address is ever found",
                           oneLine(table)),
               "list the domains");
    }
    return domains;
}

/// One table on its way to our settings. Not thread-safe.
class TableImport {
public:
    /// Reads the table.
    /// @param source  the name of a table in main.cf; empty: the file has no other settings
    /// @throws Failure  "configuration": the file cannot be read
    TableImport(std::string const& path, std::string const& source);
    ~TableImport();
    TableImport(TableImport const&) = delete;
    TableImport& operator=(TableImport const&) = delete;

    /// Makes the settings; errors are collected.
    void convert();
    /// Prints every message, in the order of lines. Returns whether there are errors.
    bool report(Diagnostics& diagnostics);
    /// The settings; without the password unless it is asked for.
    std::string text(bool withPassword) const;
    bool hasPassword() const { return !m_password.empty(); }

private:
    /// A setting of the table.
    struct Value {
        std::string text;
        unsigned long line = 0;
        bool isUsed = false;
    };
    struct Message {
        unsigned long line;
        std::string text;
    };

    void take(std::string const& name, std::string const& value, unsigned long line);
    Value const* find(char const* name);
    std::string textOf(char const* name, char const* fallback = "");
    std::optional<unsigned int> numberOf(char const* name, unsigned int least,
                                         unsigned int greatest);
    bool isYes(char const* name);

    /// Writes a setting of ours, which `origin` stands for.
    void write(char const* name, std::string const& value, char const* origin);
    void pass(char const* name);

    void tell(char const* name, std::string const& kind, std::string const& text);
    void note(char const* name, std::string const& text) { tell(name, "note", text); }
    void warn(char const* name, std::string const& text) { tell(name, "warning", text); }
    void fail(char const* name, Failure const& failure);
    /// Calls `read`; what it throws is an error of the setting.
    template <typename Read> void attempt(char const* name, Read const& read)
    {
        try {
            read();
        } catch (Failure const& failure) {
            fail(name, failure);
        }
    }

    void convertServers();
    void convertIdentity();
    void convertSimpleBind();
    void convertSasl();
    void convertTls();
    void convertSearch();
    void convertResults();
    void convertDomains();
    void nameTheRest();
    void validate();

    std::string m_path;
    unsigned int m_mode = 0;
    std::map<std::string, Value, std::less<>> m_values;
    std::vector<Message> m_messages;
    bool m_hasErrors = false;
    Draft m_draft; ///< the written settings
    std::string m_text;
    std::string m_password;
};

TableImport::TableImport(std::string const& path, std::string const& source) : m_path(path)
{
    SettingLines const lines(path);
    m_mode = lines.status().st_mode & 0777U;
    std::vector<Failure> faults;
    unsigned long line = 0;
    std::string const prefix = source.empty() ? "" : source + '_';
    lines.read(
        [&](std::string_view name, std::string const& value) {
            if (name.rfind(prefix, 0) != 0) {
                return;
            }
            std::string const own(name.substr(prefix.size()));
            take(own, value, line);
            if (!prefix.empty() && value.find('$') != std::string::npos) {
                fail(own.c_str(),
                     Failure(Outcome::configuration,
                             "it has a '$', which Postfix expands in main.cf", "write its value"));
            }
        },
        faults, &line);
    for (Failure const& fault : faults) { // they name the line
        m_hasErrors = true;
        m_messages.push_back({0, fault.what()});
    }
    if (m_values.empty() && faults.empty()) {
        refuse(fmt::format("{}: there is no table '{}'", path, source),
               "name the table's settings");
    }
}

TableImport::~TableImport()
{
    wipe(m_password);
    for (auto& [name, value] : m_values) { // a misspelt name may have it, too
        wipe(value.text);
    }
}

void TableImport::take(std::string const& name, std::string const& value, unsigned long line)
{
    if (!isAlphanumeric(name, "_-.")) {
        m_messages.push_back(
            {line, fmt::format("{}:{}: warning: {}", m_path, line, unknownSetting(name))});
        return;
    }
    Value& taken = m_values[name];
    if (taken.line != 0) {
        warn(name.c_str(), fmt::format("it is set again in line {}, which counts", line));
    }
    wipe(taken.text); // it may be the password
    taken.text = value;
    taken.line = line;
    if (name != passwordName && faultIn(value)) {
        fail(name.c_str(), Failure(Outcome::configuration, describe(*faultIn(value)),
                                   "write the value in UTF-8 without control characters"));
    }
}

TableImport::Value const* TableImport::find(char const* name)
{
    auto const found = m_values.find(name);
    if (found == m_values.end()) {
        return nullptr;
    }
    found->second.isUsed = true;
    return &found->second;
}

std::string TableImport::textOf(char const* name, char const* fallback)
{
    Value const* const value = find(name);
    return value == nullptr ? fallback : value->text;
}

std::optional<unsigned int> TableImport::numberOf(char const* name, unsigned int least,
                                                  unsigned int greatest)
{
    Value const* const value = find(name);
    std::optional<unsigned int> number;
    if (value != nullptr) {
        attempt(name, [&] { number = numberIn(value->text, least, greatest); });
    }
    return number;
}

bool TableImport::isYes(char const* name)
{
    std::string const text = lower(textOf(name, "no"));
    if (text != "yes" && text != "no") {
        fail(name, Failure(Outcome::configuration, fmt::format("unsupported value '{}'", text),
                           "choose yes or no"));
    }
    return text == "yes";
}

void TableImport::write(char const* name, std::string const& value, char const* origin)
{
    attempt(origin, [&] { settingOfFile(name)->value.fromFile(value)(m_draft); });
    m_draft.given.insert(settingOfFile(name)->name);
    m_text += fmt::format("{} = {}\n", name, value);
}

/// Writes a setting that means the same in both.
void TableImport::pass(char const* name)
{
    if (std::string const text = textOf(name); !text.empty()) {
        write(name, text, name);
    }
}

void TableImport::tell(char const* name, std::string const& kind, std::string const& text)
{
    auto const found = m_values.find(name);
    unsigned long const line = found == m_values.end() ? 0 : found->second.line;
    std::string const place = line == 0 ? m_path : fmt::format("{}:{}", m_path, line);
    m_messages.push_back({line, fmt::format("{}: {}{}: {}", place, kind.empty() ? "" : kind + ": ",
                                            oneLine(name), text)});
}

void TableImport::fail(char const* name, Failure const& failure)
{
    m_hasErrors = true;
    tell(name, "", failure.what());
}

void TableImport::convert()
{
    convertServers();
    convertIdentity();
    convertTls();
    convertSearch();
    convertResults();
    convertDomains();
    nameTheRest();
    if (!m_hasErrors) {
        validate();
    }
}

void TableImport::convertServers()
{
    write("server_host", joined(serversIn(textOf("server_host", "localhost")), ", "),
          "server_host");
    pass("server_port");
    std::string const version = textOf("version", "none");
    if (version == "none") {
        note("version", "it is not set: LDAPv3 is used; Postfix's default may be 2");
    } else if (version == "2") {
        warn("version", "it is 2: LDAPv3 is used, which all servers in use have");
    } else if (version != "3") {
        fail("version", Failure(Outcome::configuration, "unsupported value", "choose 2 or 3"));
    }
    constexpr unsigned int deadline = 15; // the default
    auto const timeout = numberOf("timeout", 1, longestSeconds);
    if (timeout) {
        write("timeout", std::to_string(*timeout), "timeout");
    }
    if (timeout.value_or(0) > deadline) {
        write("deadline", std::to_string(*timeout), "timeout");
        note("timeout", "it bounds the lookup of an address as a whole, too (deadline)");
    }
}

void TableImport::convertIdentity()
{
    std::string const bind = lower(textOf("bind", "yes"));
    if (bind == "yes" || bind == "simple") {
        convertSimpleBind();
    } else if (bind == "sasl") {
        convertSasl();
    } else if (bind != "no" && bind != "none") {
        fail("bind", Failure(Outcome::configuration, fmt::format("unsupported value '{}'", bind),
                             "choose yes, no, simple, none or sasl"));
    }
    for (char const* const name : {"bind_dn", "bind_pw"}) {
        Value const* const value = find(name);
        if (value != nullptr && !value->text.empty() && bind != "yes" && bind != "simple") {
            note(name, fmt::format("it is left out: bind is '{}'", bind));
        }
    }
    for (char const* const name : {"sasl_mechs", "sasl_realm", "sasl_authz_id", "sasl_minssf"}) {
        Value const* const value = find(name);
        if (value != nullptr && !value->text.empty() && bind != "sasl") {
            note(name, fmt::format("it is left out: bind is '{}'", bind));
        }
    }
}

void TableImport::convertSimpleBind()
{
    std::string const dn = textOf("bind_dn");
    Value const* const password = find("bind_pw");
    bool const hasPassword = password != nullptr && !password->text.empty();
    if (dn.empty()) {
        if (hasPassword) {
            warn("bind_pw", "it is left out: there is no bind_dn, so the bind is anonymous");
        }
        return;
    }
    write("bind_dn", dn, "bind_dn");
    if (!hasPassword) {
        fail("bind_dn", Failure(Outcome::configuration,
                                "there is no bind_pw: servers treat a bind without a password as "
                                "anonymous",
                                "set bind_pw, or bind = no"));
        return;
    }
    m_password = password->text;
    attempt("bind_pw", [&] { Secret().assign(m_password, "the password"); });
    constexpr mode_t others = S_IROTH | S_IWOTH;
    if ((m_mode & others) != 0) {
        warn("bind_pw", fmt::format("other users have access to the table (mode {:03o}): change "
                                    "the password",
                                    m_mode));
    }
}

void TableImport::convertSasl()
{
    std::vector<std::string> const mechanisms = wordsIn(textOf("sasl_mechs"));
    auto const isSupported = [](std::string const& mechanism) {
        std::string const name = lower(mechanism);
        return name == "external" || name == "gssapi";
    };
    auto const chosen = std::find_if(mechanisms.begin(), mechanisms.end(), isSupported);
    if (chosen == mechanisms.end()) {
        fail("sasl_mechs",
             Failure(Outcome::configuration,
                     mechanisms.empty() ? "no mechanism is named, so the server chooses"
                                        : fmt::format("unsupported mechanism '{}'",
                                                      oneLine(joined(mechanisms, " "))),
                     "use EXTERNAL or GSSAPI, or bind = simple with start_tls = yes"));
        return;
    }
    write("sasl_mechanism", lower(*chosen), "sasl_mechs");
    if (mechanisms.size() > 1) {
        warn("sasl_mechs", fmt::format("only {} is used", *chosen));
    }
    if (!textOf("sasl_realm").empty()) {
        warn("sasl_realm", "it is left out: the realm is that of the Kerberos ticket");
    }
    pass("sasl_authz_id");
    if (numberOf("sasl_minssf", 0, largestLimit).value_or(0) > 0) {
        warn("sasl_minssf", "it is left out: require TLS instead (start_tls = yes)");
    }
}

void TableImport::convertTls()
{
    bool const startsTls = isYes("start_tls");
    if (startsTls) {
        write("start_tls", "yes", "start_tls");
    }
    bool usesTls = false;
    attempt("server_host", [&] {
        for (LDAPLookup::Server const& server : m_draft.serverList()) {
            usesTls = usesTls || server.usesTls();
        }
    });
    for (char const* const name : {"tls_ca_cert_file", "tls_ca_cert_dir", "tls_cert", "tls_key"}) {
        pass(name);
    }
    if (std::string const suite = textOf("tls_cipher_suite"); !suite.empty()) {
        gnutls_priority_t parsed = nullptr;
        char const* position = nullptr;
        if (gnutls_priority_init(&parsed, suite.c_str(), &position) == GNUTLS_E_SUCCESS) {
            gnutls_priority_deinit(parsed);
            write("tls_cipher_suite", suite, "tls_cipher_suite");
        } else {
            fail("tls_cipher_suite",
                 Failure(Outcome::configuration, "it is not a priority string of GnuTLS",
                         "remove it, or write one, such as SECURE192:-VERS-ALL:+VERS-TLS1.3"));
        }
    }
    if (find("tls_require_cert") == nullptr) {
        if (usesTls) {
            warn("tls_require_cert",
                 "it is not set: Postfix accepts any certificate, but here a server's certificate "
                 "must be valid and match its name (tls_verify = full)");
        }
    } else if (isYes("tls_require_cert")) {
        write("tls_verify", "full", "tls_require_cert");
    } else {
        write("tls_verify", "none", "tls_require_cert");
        if (usesTls) {
            warn("tls_require_cert", "any certificate is accepted, so an attacker may receive the "
                                     "password; tls_verify = full is the default");
        }
    }
}

void TableImport::convertSearch()
{
    write("postfix_rules", "yes", "query_filter");
    if (find("search_base") == nullptr) {
        fail("search_base", Failure(Outcome::configuration, "it is not set", "add it"));
    }
    write("search_base", textOf("search_base"), "search_base");
    if (find("query_filter") == nullptr) {
        note("query_filter", "it is not set: (mailacceptinggeneralid=%s) is used, the default of "
                             "Postfix");
    }
    write("query_filter", textOf("query_filter", "(mailacceptinggeneralid=%s)"), "query_filter");

    std::string scope = lower(textOf("scope", "sub"));
    if (scope != "base" && scope != "one" && scope != "sub") {
        warn("scope", fmt::format("'{}' is unknown: sub is used, as Postfix does", scope));
        scope = "sub";
    }
    write("scope", scope, "scope");
    constexpr unsigned int always = 3;
    unsigned int const dereference = numberOf("dereference", 0, largestLimit).value_or(0);
    if (dereference > always) {
        warn("dereference", "the value is unknown: never is used, as Postfix does");
    } else if (dereference != 0) {
        write("dereference", std::to_string(dereference), "dereference");
    }
    if (isYes("chase_referrals")) {
        warn("chase_referrals", "references to other servers are not followed: an address that may "
                                "be there is a temporary failure");
    } else {
        write("references", "ignore", "chase_referrals");
    }
}

void TableImport::convertResults()
{
    if (find("result_attribute") == nullptr) {
        note("result_attribute", "it is not set: maildrop is used, the default of Postfix");
    }
    std::string const attributes = textOf("result_attribute", "maildrop");
    if (!attributes.empty()) {
        write("result_attribute", attributes, "result_attribute");
    } else if (textOf("leaf_result_attribute").empty() &&
               textOf("terminal_result_attribute").empty()) {
        fail("result_attribute", Failure(Outcome::configuration,
                                         "no attribute is a result, so no address is ever found",
                                         "name the attributes"));
    }
    for (char const* const name :
         {"special_result_attribute", "leaf_result_attribute", "terminal_result_attribute"}) {
        pass(name);
    }
    for (char const* const name : {"result_attribute", "special_result_attribute",
                                   "leaf_result_attribute", "terminal_result_attribute"}) {
        if (textOf(name).find_first_of("*+@") != std::string::npos) { // no value has such a name
            fail(name, Failure(Outcome::configuration, "Postfix finds nothing with '*', '+' or '@'",
                               "name the attributes"));
        }
    }
    unsigned int const expansion = numberOf("expansion_limit", 0, largestLimit).value_or(0);
    if (expansion != 0) {
        write("expansion_limit", std::to_string(expansion), "expansion_limit");
    }
    write("size_limit", std::to_string(numberOf("size_limit", 0, largestLimit).value_or(expansion)),
          "size_limit");
    pass("recursion_limit");
    std::string const filter = textOf("result_filter");
    std::string const format = textOf("result_format", filter.c_str());
    if (!format.empty()) {
        write("result_format", format, find("result_format") ? "result_format" : "result_filter");
    }
}

/// Files stay files, which are read at each start. Tables become lists.
void TableImport::convertDomains()
{
    std::vector<std::string> domains;
    for (std::string const& word : wordsIn(textOf("domain"))) {
        if (word.front() != '/' && word.find(':') != std::string::npos) {
            attempt("domain", [&] {
                auto const listed = domainsOfTable(word);
                domains.insert(domains.end(), listed.begin(), listed.end());
                warn("domain", fmt::format("{} domains are copied from '{}': later changes of the "
                                           "table do not count",
                                           listed.size(), word));
            });
        } else {
            domains.push_back(word);
        }
    }
    if (!domains.empty()) {
        write("domain", joined(domains, ", "), "domain");
    }
}

void TableImport::nameTheRest()
{
    static constexpr std::string_view meaningless[] = {"cache", "cache_expiry", "cache_size",
                                                       "debuglevel", "tls_random_file"};
    for (auto const& [name, value] : m_values) {
        if (value.isUsed) {
            continue;
        }
        bool const isKnown = std::find(std::begin(meaningless), std::end(meaningless), name) !=
                                 std::end(meaningless) ||
                             name.rfind("dump_", 0) == 0;
        if (isKnown) {
            note(name.c_str(), "it has no meaning here");
        } else {
            warn(name.c_str(), "unknown setting, which Postfix ignores, too; ldap_table(5) lists "
                               "the names");
        }
    }
}

/// The engine's own checks, of everything together.
void TableImport::validate()
{
    LDAPLookup::Settings settings = m_draft.lookup;
    settings.servers = m_draft.serverList();
    settings.password = m_password;
    try {
        Lookup::validate(settings);
    } catch (LDAPException const& fault) {
        m_hasErrors = true;
        m_messages.push_back(
            {0, fmt::format("{}: {}; correct the table", m_path, fault.stringParameter())});
    }
    wipe(settings.password);
}

bool TableImport::report(Diagnostics& diagnostics)
{
    std::stable_sort(
        m_messages.begin(), m_messages.end(),
        [](Message const& left, Message const& right) { return left.line < right.line; });
    for (Message const& message : m_messages) {
        diagnostics.error(message.text);
    }
    return m_hasErrors;
}

std::string TableImport::text(bool withPassword) const
{
    std::string all = fmt::format("# Imported from {}\n", oneLine(m_path));
    all.reserve(all.size() + m_text.size() + m_password.size() + passwordName.size() + 4);
    all += m_text;
    if (withPassword && hasPassword()) {
        all.append(passwordName).append(" = ").append(m_password).append("\n");
    }
    return all;
}

} // namespace

void ImportCommand::declareOn(OptionList& options)
{
    options.value("TABLE", m_table, "", "File of the table, as /etc/postfix/ldap-aliases.cf")
        .required();
    options.value("--source", m_source, "NAME", "Name of a table whose settings are in main.cf");
    options.value("--output", m_output, "FILE", "File to write; default: standard output");
    options.flag("--force", m_replaces, "Replace an existing file");
    options.footer(footer);
}

int ImportCommand::run(CommonOptions const&, Output& output, Diagnostics& diagnostics)
{
    if (m_replaces && m_output.empty()) {
        throw Failure(Outcome::usage, "--force replaces a file", "name it with --output");
    }
    TableImport table(m_table, m_source);
    table.convert();
    if (table.report(diagnostics)) {
        return exitStatusOf(Outcome::configuration);
    }
    if (m_output.empty()) {
        output.write(table.text(false));
        if (table.hasPassword()) {
            diagnostics.error("bind_pw is not printed; use --output FILE, or give the password "
                              "with -y");
        }
        return exitStatusOf(Outcome::found);
    }
    std::string text = table.text(true);
    std::string unkept;
    try {
        unkept = writeFile(m_output, text, m_replaces);
    } catch (Failure const&) {
        wipe(text);
        throw;
    }
    wipe(text);
    if (!unkept.empty()) {
        diagnostics.error(fmt::format("{}: warning: {}; its mode is 600 now", m_output, unkept));
    }
    return exitStatusOf(Outcome::found);
}

} // namespace Solvane::Tool
