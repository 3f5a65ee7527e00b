// Every setting of a lookup, once: its name in the settings file, its options, how its text is read,
// its default. The settings file, the command line and the documents' tests read this table.
#ifndef SOLVANE_TOOL_SETTINGS_TABLE_H
#define SOLVANE_TOOL_SETTINGS_TABLE_H

#include "ServerUri.h"

#include <solvane/lookup/LDAPLookup.h>

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

/// What the settings file and the command line say, before the engine's settings are made of it.
struct Draft {
    LDAPLookup::Settings lookup;    ///< all but the servers and the password
    std::vector<std::string> hosts; ///< servers of the file; `port` completes them
    std::vector<ServerUri> servers; ///< servers of the command line, which replace `hosts`
    unsigned int port = LDAPLookup::Server().port;
    LDAPConnection::Protocol version = LDAPLookup::Server().version;
    bool binds = true;
    std::set<std::string_view> given; ///< names of the settings that were set

    bool has(std::string_view name) const { return given.count(name) != 0; }
    /// The servers in order of trial.
    std::vector<LDAPLookup::Server> serverList() const;
};

/// One row of the table.
struct Setting {
    /// Where the help lists its options.
    enum class Group { server, identity, queryTemplate, search, bulk };
    /// Stores a value that was read.
    using Assignment = std::function<void(Draft&)>;
    /// Reads a text.
    /// @throws Failure  "usage", or "configuration" for a file that the text names; the text does not
    ///                  name the setting
    using Reader = std::function<Assignment(std::string const& text)>;

    /// How it is read and what it is by default; each part may be empty.
    struct Value {
        Reader fromFile;                               ///< empty: not a setting of the file
        Reader fromOption;                             ///< empty: without an option
        std::function<std::string(Draft const&)> text; ///< what stands for a draft's value
    };

    char const* name;
    Group group;
    char const* options; ///< as CLI11 takes them, the one that complaints show first; may be empty
    char const* shape;   ///< stands for the value in the help; S: seconds, N: a number
    Value value;
    char const* help;
    bool isList = false; ///< the option may be given again and adds to the values

    /// The default as the documents show it; empty if there is none.
    std::string defaultText() const;
};

/// The table. Two rows of one name are two options for one setting.
std::vector<Setting> const& settingsTable();

/// The row of the settings file with this name; null if there is none.
Setting const* settingOfFile(std::string_view name);

/// The password of the settings file is not kept with the other values.
constexpr std::string_view passwordName = "bind_pw";

} // namespace Solvane::Tool

#endif
