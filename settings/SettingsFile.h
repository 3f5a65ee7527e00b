// Settings files: lines "name = value". Settings with the same meaning as in Postfix's LDAP tables have
// the same names.
#ifndef SOLVANE_TOOL_SETTINGS_FILE_H
#define SOLVANE_TOOL_SETTINGS_FILE_H

#include "Files.h"
#include "Outcome.h"
#include "Secret.h"
#include "SettingsTable.h"

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace Solvane::Tool {

/// The text of a file of lines "name = value". A line that begins with a blank continues the previous
/// one; empty lines and lines whose first non-blank character is '#' are ignored. The destructor
/// overwrites the text: it may contain a password.
class SettingLines {
public:
    /// @throws Failure  "configuration": the file cannot be read
    explicit SettingLines(std::string const& path);
    ~SettingLines();
    SettingLines(SettingLines const&) = delete;
    SettingLines& operator=(SettingLines const&) = delete;

    /// Takes one setting. The value is overwritten afterwards.
    /// @throws Failure  the setting is invalid; `read` adds file and line
    using Taker = std::function<void(std::string_view name, std::string const& value)>;
    /// Passes every setting on, in order.
    /// @param faults  receives a Failure "configuration" for each setting that is malformed or was
    ///                refused
    /// @param line    receives the number of the line on which a setting begins, before it is
    ///                passed on; may be null
    void read(Taker const& take, std::vector<Failure>& faults, unsigned long* line = nullptr) const;

    std::string const& path() const { return m_path; }
    /// Of the open file, not of its name, which another file may take at any time.
    struct stat const& status() const { return m_status; }

private:
    std::string m_path;
    std::string m_text;
    struct stat m_status {};
};

/// The message about the name of a setting that does not exist.
std::string unknownSetting(std::string_view name);

/// The validated contents of a settings file and of the files that it includes. The password is
/// stored apart from the other settings.
class SettingsFile {
public:
    /// No file: every setting has its default.
    SettingsFile();
    /// Reads a file.
    /// @throws Failure  "configuration": it cannot be read, others can read the password in it, or
    ///                  a line is invalid; the text names file and line
    explicit SettingsFile(std::string const& path);
    /// Reads a file to its end, whatever is wrong with it.
    /// @param faults  receives every failure; if there is one, the contents are of no use
    SettingsFile(std::string const& path, Privacy privacy, std::vector<Failure>& faults);

    /// The settings, without the password.
    Draft const& draft() const { return m_draft; }
    /// Empty if the file has none.
    Secret const& password() const { return m_password; }
    /// The path as given; empty if there is no file.
    std::string const& path() const { return m_path; }

private:
    void read(std::string const& path, unsigned int depth, std::vector<Failure>& faults);
    void take(SettingLines const& lines, unsigned int depth, std::string_view name,
              std::string const& value, std::vector<Failure>& faults);
    bool isOverridden(Setting const& setting, unsigned int depth);
    void store(SettingLines const& lines, Setting const& setting, std::string const& value);
    void finish(std::vector<Failure>& faults);

    std::string m_path;
    Privacy m_privacy = Privacy::owner;
    Draft m_draft;
    Secret m_password;
    std::map<std::string_view, unsigned int> m_depths; ///< of the files that set each name
    unsigned long m_line = 0;                          ///< on which the current setting begins
    std::string m_templatePlace;                       ///< file and line of the template
};

} // namespace Solvane::Tool

#endif
