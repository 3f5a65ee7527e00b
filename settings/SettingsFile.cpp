// Parses settings files line by line.
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
constexpr std::string_view includeName = "include";
constexpr std::string_view templateName = "query_filter";
constexpr unsigned int deepestInclude = 8;

std::string_view trimmed(std::string_view text)
{
    auto const begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos
               ? std::string_view()
               : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/// Joins the lines of each setting, and passes it on.
class SettingsParser {
public:
    SettingsParser(std::string const& path, std::size_t size, SettingLines::Taker const& take,
                   std::vector<Failure>& faults, unsigned long* begin)
        : m_path(path), m_take(take), m_faults(faults), m_shownBegin(begin)
    {
        m_value.reserve(size + 1); // once: growing would leave copies in memory
    }
    ~SettingsParser() { wipe(m_value); }
    SettingsParser(SettingsParser const&) = delete;
    SettingsParser& operator=(SettingsParser const&) = delete;

    void parse(std::string_view text);

private:
    void takeLine(std::string_view line);
    void begin(std::string_view line);
    void finishSetting();
    void complain(std::string const& cause, std::string const& remedy);
    std::string place() const { return fmt::format("{}:{}", m_path, m_begin); }

    std::string const& m_path;
    SettingLines::Taker const& m_take;
    std::vector<Failure>& m_faults;
    unsigned long* m_shownBegin; ///< receives `m_begin`; may be null
    unsigned long m_line = 0;
    unsigned long m_begin = 0;  ///< line on which the current setting begins
    bool m_hasSetting = false;  ///< whether there is one
    bool m_isMalformed = false; ///< its first line was: what continues it is ignored
    std::string m_name;
    std::string m_value;
};

void SettingsParser::parse(std::string_view text)
{
    while (!text.empty()) {
        auto const end = std::min(text.find('\n'), text.size());
        ++m_line;
        takeLine(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    finishSetting();
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
    } else if (m_hasSetting) {
        m_value += m_value.empty() ? "" : " ";
        m_value += text;
    } else if (!m_isMalformed) {
        m_begin = m_line;
        complain("continuation line without a setting", "remove the blanks before the name");
    }
}

void SettingsParser::begin(std::string_view line)
{
    m_begin = m_line;
    auto const equals = line.find('=');
    m_isMalformed = equals == std::string_view::npos;
    if (m_isMalformed) { // the line is not shown: it may be a secret
        complain("the line has no '='", "write name = value");
        return;
    }
    m_hasSetting = true;
    m_name = trimmed(line.substr(0, equals));
    m_value = trimmed(line.substr(equals + 1));
}

void SettingsParser::finishSetting()
{
    if (m_hasSetting) {
        m_hasSetting = false;
        if (m_shownBegin != nullptr) {
            *m_shownBegin = m_begin;
        }
        try {
            explainedBy(place(), Outcome::configuration, [&] { m_take(m_name, m_value); });
        } catch (Failure const& failure) {
            m_faults.push_back(failure);
        }
    }
}

void SettingsParser::complain(std::string const& cause, std::string const& remedy)
{
    m_faults.emplace_back(Outcome::configuration, fmt::format("{}: {}", place(), cause), remedy);
}

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::configuration, cause, remedy);
}

/// The path of an included file: relative to the folder of the file that names it.
std::string besides(std::string const& path, std::string const& included)
{
    auto const slash = path.rfind('/');
    bool const isWhole = included.rfind('/', 0) == 0 || slash == std::string::npos;
    return isWhole ? included : path.substr(0, slash + 1) + included;
}

} // namespace

std::string unknownSetting(std::string_view name)
{
    // What is no name is not shown: it may be a secret, as in "bind_pw: secret=1".
    return isAlphanumeric(name, "_-.") ? fmt::format("unknown setting '{}'", name)
                                       : "the text before '=' is not the name of a setting";
}

SettingLines::SettingLines(std::string const& path) : m_path(path)
{
    constexpr std::size_t largest = std::size_t{1024} * 1024;
    Descriptor const file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.isOpen() || fstat(file.get(), &m_status) != 0) {
        throw unusableFile("the settings file", path, errno);
    }
    m_text.resize(largest); // once: growing would leave copies in memory
    std::size_t size = 0;
    for (ssize_t count = 1; count != 0 && size < m_text.size();) {
        count = ::read(file.get(), m_text.data() + size, m_text.size() - size);
        if (count < 0 && errno != EINTR) {
            throw unusableFile("the settings file", path, errno);
        }
        size += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    if (size == largest) {
        refuse(fmt::format("the settings file '{}' is longer than {} bytes", path, largest),
               "check that it is a settings file");
    }
    m_text.resize(size);
    if (m_text.compare(0, byteOrderMark.size(), byteOrderMark) == 0) {
        m_text.erase(0, byteOrderMark.size());
    }
}

SettingLines::~SettingLines() { wipe(m_text); }

void SettingLines::read(Taker const& take, std::vector<Failure>& faults, unsigned long* line) const
{
    SettingsParser(m_path, m_text.size(), take, faults, line).parse(m_text);
}

SettingsFile::SettingsFile() = default;

SettingsFile::SettingsFile(std::string const& path) : m_path(path)
{
    std::vector<Failure> faults;
    read(path, 0, faults);
    finish(faults);
    if (!faults.empty()) {
        throw faults.front();
    }
}

SettingsFile::SettingsFile(std::string const& path, Privacy privacy, std::vector<Failure>& faults)
    : m_path(path), m_privacy(privacy)
{
    try {
        read(path, 0, faults);
        finish(faults);
    } catch (Failure const& failure) {
        faults.push_back(failure);
    }
}

/// @param depth  the number of files that include it
void SettingsFile::read(std::string const& path, unsigned int depth, std::vector<Failure>& faults)
{
    SettingLines const lines(path);
    lines.read([&](std::string_view name,
                   std::string const& value) { take(lines, depth, name, value, faults); },
               faults, &m_line);
}

void SettingsFile::take(SettingLines const& lines, unsigned int depth, std::string_view name,
                        std::string const& value, std::vector<Failure>& faults)
{
    if (name == includeName) {
        if (depth == deepestInclude) {
            refuse("too many files include one another", "remove the circle");
        }
        read(besides(lines.path(), value), depth + 1, faults);
        return;
    }
    Setting const* const setting = settingOfFile(name);
    if (setting == nullptr) {
        refuse(unknownSetting(name), "solvane-ldap.conf(5) lists the names");
    }
    bool const isUnused = isOverridden(*setting, depth);
    explainedBy(setting->name, Outcome::configuration, [&] {
        if (isUnused) {
            if (setting->name == passwordName) {
                requirePrivate("the file", lines.status(), m_privacy);
            }
            setting->value.fromFile(value); // only validates it
        } else {
            store(lines, *setting, value);
        }
    });
}

/// Whether a file that includes this one sets the same: that one counts, wherever the line stands.
bool SettingsFile::isOverridden(Setting const& setting, unsigned int depth)
{
    auto const [earlier, isFirst] = m_depths.emplace(setting.name, depth);
    if (!isFirst && earlier->second == depth) {
        refuse(fmt::format("{} is set twice", setting.name), "remove one of the lines");
    }
    bool const isOverridden = earlier->second < depth;
    earlier->second = std::min(earlier->second, depth);
    m_draft.given.insert(setting.name);
    return isOverridden;
}

void SettingsFile::store(SettingLines const& lines, Setting const& setting,
                         std::string const& value)
{
    if (setting.name == passwordName) {
        requirePrivate("the file", lines.status(), m_privacy);
        m_password.assign(value, "the password");
        return;
    }
    if (auto const fault = faultIn(value)) {
        refuse(describe(*fault), "write the value in UTF-8 without control characters");
    }
    setting.value.fromFile(value)(m_draft);
    if (setting.name == templateName) {
        m_templatePlace = fmt::format("{}:{}", lines.path(), m_line);
    }
}

void SettingsFile::finish(std::vector<Failure>& faults)
{
    if (!m_draft.binds) {
        m_draft.lookup.bindDn.clear();
        m_draft.lookup.mechanism = Lookup::Mechanism::simple;
        m_draft.lookup.authorizationId.clear();
    }
    if (!m_draft.lookup.postfixRules && !m_templatePlace.empty()) { // it may follow the template
        try {
            explainedBy(fmt::format("{}: {}", m_templatePlace, templateName),
                        Outcome::configuration, [&] { ourTemplate(m_draft.lookup.queryTemplate); });
        } catch (Failure const& failure) {
            faults.push_back(failure);
        }
    }
    for (auto const& [name, other] : {std::make_pair("tls_verify", "tls_require_cert"),
                                      std::make_pair("result_format", "result_filter")}) {
        if (m_draft.has(name) && m_draft.has(other)) {
            faults.emplace_back(Outcome::configuration,
                                fmt::format("{}: {} and {} are both set", m_path, name, other),
                                "remove one of them");
        }
    }
}

} // namespace Solvane::Tool
