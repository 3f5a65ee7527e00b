// The settings file of -C: lines "name = value". Settings with the same meaning as in Postfix's
// LDAP tables have the same names.
#ifndef SOLVANE_TOOL_SETTINGS_FILE_H
#define SOLVANE_TOOL_SETTINGS_FILE_H

#include "Secret.h"
#include "SettingsTable.h"

#include <string>

namespace Solvane::Tool {

/// The validated contents of a settings file. The password is stored apart from the other settings.
class SettingsFile {
public:
    /// No file: every setting has its default.
    SettingsFile();
    /// Reads a file.
    /// @throws Failure  "configuration": it cannot be read, others can read the password in it, or
    ///                  a line is invalid; the text names file and line
    explicit SettingsFile(std::string const& path);

    /// The settings, without the password.
    Draft const& draft() const { return m_draft; }
    /// Empty if the file has none.
    Secret const& password() const { return m_password; }
    /// The path as given; empty if there is no file.
    std::string const& path() const { return m_path; }

private:
    friend class SettingsParser;

    std::string m_path;
    Draft m_draft;
    Secret m_password;
};

} // namespace Solvane::Tool

#endif
