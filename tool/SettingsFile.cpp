// Reading the lines of a settings file, and the table of its names.
#include "SettingsFile.h"

#include "Failure.h"
#include "Files.h"
#include "ServerUri.h"
#include "SettingValues.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text)
{
    auto const begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos
               ? std::string_view()
               : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

bool booleanIn(std::string const& value)
{
    if (value != "yes" && value != "no") {
        throw Failure(Outcome::usage, fmt::format("'{}' is neither yes nor no", oneLine(value)),
                      "choose one of them");
    }
    return value == "yes";
}

/// Refuses the specifiers of Postfix's filters, which would be searched for as they are.
std::string ourTemplate(std::string const& value)
{
    constexpr std::string_view theirs = "suSUdD123456789%";
    for (auto at = value.find('%'); at != std::string::npos; at = value.find('%', at + 1)) {
        if (at + 1 < value.size() && theirs.find(value[at + 1]) != std::string_view::npos) {
            throw Failure(Outcome::usage,
                          fmt::format("'{}' is not replaced here", value.substr(at, 2)),
                          "write $m for the address (%s), $u for its local part (%u), $d for its "
                          "domain (%d), \\25 for a '%'");
        }
    }
    return value;
}

/// The file's text, overwritten at its end: it may hold a password.
class FileText {
public:
    explicit FileText(std::string const& path);
    ~FileText() { wipe(m_text); }
    FileText(FileText const&) = delete;
    FileText& operator=(FileText const&) = delete;

    std::string_view text() const { return m_text; }
    unsigned int mode() const { return m_mode; }

private:
    std::string m_text;
    unsigned int m_mode = 0;
};

FileText::FileText(std::string const& path)
{
    constexpr std::size_t largest = std::size_t{1024} * 1024;
    Descriptor const file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status = {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0) {
        throw unusableFile("the settings file", path, errno);
    }
    // Asked of the open file, not of the name: it may come to mean another file at any time.
    m_mode = status.st_mode & 0777U;
    m_text.resize(largest); // once: growing would leave copies behind
    std::size_t size = 0;
    for (ssize_t count = 1; count != 0 && size < m_text.size();) {
        count = read(file.get(), m_text.data() + size, m_text.size() - size);
        if (count < 0 && errno != EINTR) {
            throw unusableFile("the settings file", path, errno);
        }
        size += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    if (size == largest) {
        throw Failure(Outcome::configuration,
                      fmt::format("the settings file '{}' is longer than {} bytes", path, largest),
                      "name a file of settings");
    }
    m_text.resize(size);
}

} // namespace

/// Goes through the lines of one file. A line that begins with a blank continues the one before it;
/// empty lines and lines whose first character is '#' count for nothing.
class SettingsParser {
public:
    explicit SettingsParser(SettingsFile& file) : m_file(file), m_source(file.m_path)
    {
        m_value.reserve(m_source.text().size() + 1); // once, as above
    }
    ~SettingsParser() { wipe(m_value); }
    SettingsParser(SettingsParser const&) = delete;
    SettingsParser& operator=(SettingsParser const&) = delete;

    void parse();

private:
    using Settings = LDAPLookup::Settings;
    struct Name {
        char const* text;
        void (*apply)(SettingsParser& parser, Settings& settings, std::string const& value);
    };
    static Name const names[];

    [[noreturn]] void refuse(std::string const& cause, std::string const& remedy) const;
    void takeLine(std::string_view line);
    void begin(std::string_view line);
    void finishSetting();
    void requirePrivacy() const;
    std::string place() const { return fmt::format("{}:{}", m_file.m_path, m_begin); }
    void makeServers();

    SettingsFile& m_file;
    FileText m_source;
    unsigned long m_line = 0;
    unsigned long m_begin = 0; ///< line on which the current setting begins
    Name const* m_name = nullptr;
    std::string m_value;
    std::vector<std::string> m_hosts;
    unsigned int m_port = 389;
    bool m_binds = true;
};

// clang-format off
SettingsParser::Name const SettingsParser::names[] = {
    { "server_host", [](SettingsParser& parser, Settings&, std::string const& value) {
        parser.m_hosts = wordsIn(value);
        for (std::string const& host : parser.m_hosts) {
            ServerUri::fromHost(host, parser.m_port); // refuses it on its line
        } } },
    { "server_port", [](SettingsParser& parser, Settings&, std::string const& value) {
        parser.m_port = numberIn(value, 1, 65535); } },
    { "version", [](SettingsParser& parser, Settings&, std::string const& value) {
        parser.m_file.m_version = protocolIn(value); } },
    { "timeout", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.networkTimeout = numberIn(value, 1, longestSeconds); } },
    { "deadline", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.deadline = std::chrono::seconds(numberIn(value, 1, longestSeconds)); } },
    { "bind", [](SettingsParser& parser, Settings&, std::string const& value) {
        parser.m_binds = booleanIn(value); } },
    { "bind_dn", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.bindDn = dnIn(value); } },
    { "bind_pw", [](SettingsParser& parser, Settings&, std::string const& value) {
        parser.requirePrivacy();
        parser.m_file.m_password.assign(value, "the password"); } },
    { "tls_verify", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.tls.verify = tlsVerifyIn(value); } },
    { "tls_ca_cert_file", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.tls.caFile = value; } },
    { "search_base", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.base = dnIn(value); } },
    { "scope", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.scope = scopeIn(value); } },
    { "dereference", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.deref = dereferenceIn(value); } },
    { "result_attribute", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.attributes = attributesIn(value); } },
    { "size_limit", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.entryLimit = numberIn(value, 0, largestLimit); } },
    { "time_limit", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.timeLimit = numberIn(value, 0, largestLimit); } },
    { "query_filter", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.queryTemplate = ourTemplate(value); } },
    { "b_value", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.bValue = value; } },
    { "g_value", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.gValue = value; } },
    { "domain", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.domains = domainsIn(value); } },
    { "forms", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.forms = formsIn(value); } },
    { "delimiter", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.extensionDelimiter = delimiterIn(value); } },
    { "connections", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.connections = numberIn(value, 1, mostConnections); } },
    { "window", [](SettingsParser&, Settings& settings, std::string const& value) {
        settings.window = numberIn(value, 1, widestWindow); } },
};
// clang-format on

void SettingsParser::parse()
{
    std::string_view rest = m_source.text();
    while (!rest.empty()) {
        auto const end = std::min(rest.find('\n'), rest.size());
        ++m_line;
        takeLine(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    finishSetting();
    makeServers();
    if (!m_binds) {
        m_file.m_settings.bindDn.clear();
    }
}

void SettingsParser::takeLine(std::string_view line)
{
    std::string_view const text = trimmed(line);
    if (text.empty() || text.front() == '#') {
        return;
    }
    if (blanks.find(line.front()) == std::string_view::npos) {
        finishSetting();
        begin(text);
    } else if (m_name != nullptr) {
        m_value += m_value.empty() ? "" : " ";
        m_value += text;
    } else {
        m_begin = m_line;
        refuse("the line continues nothing", "begin it with a name, without blanks");
    }
}

void SettingsParser::begin(std::string_view line)
{
    m_begin = m_line;
    auto const equals = line.find('=');
    if (equals == std::string_view::npos) { // what it is is not shown: it may be a secret
        refuse("the line has no '='", "write name = value");
    }
    std::string_view const name = trimmed(line.substr(0, equals));
    m_name = std::find_if(std::begin(names), std::end(names),
                          [&](Name const& known) { return name == known.text; });
    if (m_name == std::end(names)) {
        refuse(fmt::format("there is no setting '{}'", oneLine(name)),
               "solvane-ldap.conf(5) lists the names");
    }
    if (!m_file.m_names.insert(m_name->text).second) {
        refuse(fmt::format("{} is set twice", m_name->text), "leave one of the lines out");
    }
    m_value = trimmed(line.substr(equals + 1));
}

void SettingsParser::finishSetting()
{
    if (m_name == nullptr) {
        return;
    }
    bool const isSecret = m_name->text == std::string_view("bind_pw");
    if (!isSecret && faultIn(m_value)) {
        refuse(fmt::format("{}: {}", m_name->text, describe(*faultIn(m_value))),
               "write the value in UTF-8 without control characters");
    }
    explainedBy(fmt::format("{}: {}", place(), m_name->text), Outcome::configuration,
                [&] { m_name->apply(*this, m_file.m_settings, m_value); });
    m_name = nullptr;
}

void SettingsParser::requirePrivacy() const
{
    if ((m_source.mode() & (S_IRGRP | S_IROTH)) != 0) {
        throw Failure(Outcome::configuration,
                      fmt::format("the file can be read by others (mode {:03o})", m_source.mode()),
                      "chmod 600 it, and change the password if others had access");
    }
}

/// Made last: port and version may stand behind the hosts.
void SettingsParser::makeServers()
{
    for (std::string const& host : m_hosts) {
        ServerUri const uri = ServerUri::fromHost(host, m_port);
        m_file.m_settings.servers.push_back({uri.host, uri.port, uri.isSecure, m_file.m_version});
    }
}

void SettingsParser::refuse(std::string const& cause, std::string const& remedy) const
{
    throw Failure(Outcome::configuration, fmt::format("{}: {}", place(), cause), remedy);
}

SettingsFile::SettingsFile() = default;

SettingsFile::SettingsFile(std::string const& path) : m_path(path)
{
    SettingsParser(*this).parse();
}

} // namespace Solvane::Tool
