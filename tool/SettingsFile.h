// The settings file of -C: lines "name = value", with the names of Postfix's LDAP tables where the
// meaning is the same.
#ifndef SOLVANE_TOOL_SETTINGS_FILE_H
#define SOLVANE_TOOL_SETTINGS_FILE_H

#include "Secret.h"
#include "SettingsTable.h"

#include <string>

namespace Solvane::Tool {

/// What a settings file says, checked. Its password stays apart from the rest.
class SettingsFile {
public:
    /// Says nothing: every setting has its default.
    SettingsFile();
    /// Reads a file.
    /// @throws Failure  "configuration": it cannot be read, others may read the password in it, or
    ///                  a line is wrong; the text names file and line
    explicit SettingsFile(std::string const& path);

    /// What it says; without the password.
    Draft const& draft() const { return m_draft; }
    /// Empty if the file has none.
    Secret const& password() const { return m_password; }
    /// As it was named; empty for none.
    std::string const& path() const { return m_path; }

private:
    friend class SettingsParser;

    std::string m_path;
    Draft m_draft;
    Secret m_password;
};

} // namespace Solvane::Tool

#endif
