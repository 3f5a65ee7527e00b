// Parses a settings file line by line.
#include "SettingsFile.h"

#include "Files.h"
#include "Outcome.h"
#include "SettingValues.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

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

/// The file's text. The destructor overwrites it: it may contain a password.
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
    // Checks the open file, not its name, which another file may take at any time.
    m_mode = status.st_mode & 0777U;
    m_text.resize(largest); // once: growing would leave copies in memory
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
                      "check that it is a settings file");
    }
    m_text.resize(size);
}

} // namespace

/// Parses one file. A line that begins with a blank continues the previous one; empty lines and
/// lines whose first non-blank character is '#' are ignored.
class SettingsParser {
public:
    explicit SettingsParser(SettingsFile& file) : m_file(file), m_source(file.m_path)
    {
        m_value.reserve(m_source.text().size() + 1); // once, as in FileText
    }
    ~SettingsParser() { wipe(m_value); }
    SettingsParser(SettingsParser const&) = delete;
    SettingsParser& operator=(SettingsParser const&) = delete;

    void parse();

private:
    [[noreturn]] void refuse(std::string const& cause, std::string const& remedy) const;
    void takeLine(std::string_view line);
    void begin(std::string_view line);
    void finishSetting();
    void requirePrivacy() const;
    std::string place() const { return fmt::format("{}:{}", m_file.m_path, m_begin); }
    void store();

    SettingsFile& m_file;
    FileText m_source;
    unsigned long m_line = 0;
    unsigned long m_begin = 0; ///< line on which the current setting begins
    Setting const* m_setting = nullptr;
    std::string m_value;
};

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
    Draft& draft = m_file.m_draft;
    if (!draft.binds) {
        draft.lookup.bindDn.clear();
        draft.lookup.mechanism = Lookup::Mechanism::simple;
        draft.lookup.authorizationId.clear();
    }
    for (auto const& [name, other] : {std::make_pair("tls_verify", "tls_require_cert"),
                                      std::make_pair("result_format", "result_filter")}) {
        if (draft.has(name) && draft.has(other)) {
            throw Failure(Outcome::configuration,
                          fmt::format("{}: {} and {} are both set", m_file.m_path, name, other),
                          "remove one of them");
        }
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
    } else if (m_setting != nullptr) {
        m_value += m_value.empty() ? "" : " ";
        m_value += text;
    } else {
        m_begin = m_line;
        refuse("continuation line without a setting", "remove the blanks before the name");
    }
}

void SettingsParser::begin(std::string_view line)
{
    m_begin = m_line;
    auto const equals = line.find('=');
    if (equals == std::string_view::npos) { // the line is not shown: it may be a secret
        refuse("the line has no '='", "write name = value");
    }
    std::string_view const name = trimmed(line.substr(0, equals));
    m_setting = settingOfFile(name);
    if (m_setting == nullptr) {
        refuse(fmt::format("unknown setting '{}'", oneLine(name)),
               "solvane-ldap.conf(5) lists the names");
    }
    if (!m_file.m_draft.given.insert(m_setting->name).second) {
        refuse(fmt::format("{} is set twice", m_setting->name), "remove one of the lines");
    }
    m_value = trimmed(line.substr(equals + 1));
}

void SettingsParser::finishSetting()
{
    if (m_setting == nullptr) {
        return;
    }
    explainedBy(fmt::format("{}: {}", place(), m_setting->name), Outcome::configuration,
                [&] { store(); });
    m_setting = nullptr;
}

void SettingsParser::store()
{
    if (m_setting->name == passwordName) {
        requirePrivacy();
        m_file.m_password.assign(m_value, "the password");
        return;
    }
    if (auto const fault = faultIn(m_value)) {
        throw Failure(Outcome::usage, describe(*fault),
                      "write the value in UTF-8 without control characters");
    }
    m_setting->value.fromFile(m_value)(m_file.m_draft);
}

void SettingsParser::requirePrivacy() const
{
    if ((m_source.mode() & (S_IRGRP | S_IROTH)) != 0) {
        throw Failure(
            Outcome::configuration,
            fmt::format("the file is readable by other users (mode {:03o})", m_source.mode()),
            "set mode 600, and change the password if others had access");
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
