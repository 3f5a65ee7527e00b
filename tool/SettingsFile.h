// The settings file of -C: lines "name = value", with the names of Postfix's LDAP tables where the
// meaning is the same.
#ifndef SOLVANE_TOOL_SETTINGS_FILE_H
#define SOLVANE_TOOL_SETTINGS_FILE_H

#include "Secret.h"

#include <solvane/lookup/LDAPLookup.h>

#include <functional>
#include <set>
#include <string>
#include <string_view>

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

    /// The settings, those that the file does not name with their defaults; without the password.
    LDAPLookup::Settings const& settings() const { return m_settings; }
    /// Version 3 where the file has none.
    LDAPConnection::Protocol version() const { return m_version; }
    /// Empty where the file has none.
    Secret const& password() const { return m_password; }
    /// Whether the file sets `name`.
    bool has(std::string_view name) const { return m_names.count(name) != 0; }
    /// As it was named; empty for none.
    std::string const& path() const { return m_path; }

private:
    friend class SettingsParser;

    std::string m_path;
    LDAPLookup::Settings m_settings;
    LDAPConnection::Protocol m_version = LDAPConnection::V3;
    Secret m_password;
    std::set<std::string, std::less<>> m_names;
};

} // namespace Solvane::Tool

#endif
