// The table of all settings: name in the settings file, options, parser and default of each. The
// settings file, the command line and the tests of the documents read it.
#ifndef SOLVANE_TOOL_SETTINGS_TABLE_H
#define SOLVANE_TOOL_SETTINGS_TABLE_H

#include "ServerUri.h"

#include <solvane/lookup/LDAPLookup.h>

#include <solvane/ldap/LDAPLdif.h>

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

/// The settings of the settings file and the command line, from which the engine's are made.
struct Draft {
    LDAPLookup::Settings lookup;    ///< all except the servers and the password
    std::vector<std::string> hosts; ///< servers of the file; `port` completes them
    std::vector<ServerUri> servers; ///< servers of the command line, which replace `hosts`
    unsigned int port = LDAPLookup::Server().port;
    LDAPConnection::Protocol version = LDAPLookup::Server().version;
    bool startTls = false; ///< on every ldap:// server
    bool binds = true;
    std::size_t ldifWidth = LDAPLdif::defaultWidth; ///< of lines of LDIF
    std::set<std::string_view> given;               ///< names of the settings that were set

    bool has(std::string_view name) const { return given.count(name) != 0; }
    /// The servers in the order to try them.
    std::vector<LDAPLookup::Server> serverList() const;
};

/// One row of the table.
struct Setting {
    /// The group of options in the help.
    enum class Group { server, identity, queryTemplate, search, results, bulk };
    /// Stores a parsed value.
    using Assignment = std::function<void(Draft&)>;
    /// Parses a text.
    /// @throws Failure  "usage", or "configuration" for a file that the text names; the message
    ///                  does not name the setting
    using Reader = std::function<Assignment(std::string const& text)>;

    /// The parsers and the writer of a value; each may be empty.
    struct Value {
        Reader fromFile;                               ///< empty: not a setting of the file
        Reader fromOption;                             ///< empty: has no option
        std::function<std::string(Draft const&)> text; ///< writes a draft's value
    };

    char const* name;
    Group group;
    char const* options; ///< in CLI11's notation; messages show the first one; may be empty
    char const* shape;   ///< placeholder for the value in the help; S: seconds, N: a number; empty:
                         ///< the option has no value and means "yes"
    Value value;
    char const* help;
    bool isList = false; ///< the option may be repeated and adds values

    /// The default as shown in the documents; empty if there is none.
    std::string defaultText() const;
};

/// The table. Two rows with the same name are two options for one setting.
std::vector<Setting> const& settingsTable();

/// The row of the settings file with this name; null if there is none.
Setting const* settingOfFile(std::string_view name);

/// The name of the password, which is stored apart from the other values.
constexpr std::string_view passwordName = "bind_pw";

} // namespace Solvane::Tool

#endif
