// Options that several subcommands have. Values are validated while the command line is parsed; an invalid
// one throws a Failure "usage".
#ifndef SOLVANE_TOOL_OPTIONS_H
#define SOLVANE_TOOL_OPTIONS_H

#include "Console.h"
#include "Files.h"
#include "OptionList.h"
#include "Secret.h"
#include "SettingsFile.h"
#include "SettingsTable.h"

#include <solvane/lookup/LDAPLookup.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Solvane::Tool {

/// The settings given on the command line. A Failure "usage" names the option.
class SettingOptions {
public:
    SettingOptions() = default;
    SettingOptions(SettingOptions const&) = delete; // the options hold its address
    SettingOptions& operator=(SettingOptions const&) = delete;

    /// Declares the options of a group, in the table's order.
    void declareOn(OptionList& options, Setting::Group group);
    /// Declares one option.
    /// @param help  replaces that of the table
    void declareOn(OptionList& options, Setting const& setting, char const* help);

    /// Whether the command line sets this setting.
    bool has(std::string_view name) const;
    /// Applies the settings of the command line.
    /// @throws Failure  "configuration": the template file cannot be read
    void applyTo(Draft& draft) const;

private:
    DeclaredOption declared(OptionList& options, Setting const& setting, char const* help);
    void take(Setting const& setting, std::string const& text);

    std::vector<std::pair<Setting const*, Setting::Assignment>> m_given;
};

/// Whether and how --stats prints figures at the end.
enum class Stats { none, text, json };

/// The options of every subcommand. They are allowed before and after its name.
class CommonOptions {
public:
    /// Declares the options on the program.
    void declareOn(OptionList& options);
    /// Declares on a subcommand the options that CLI11 does not find on the program.
    void declareOnCommand(OptionList& options);

    /// The settings file of -C, read at the first call; without -C an empty one.
    /// @throws Failure  "configuration"
    SettingsFile const& file() const;

    /// The settings of the file, overridden by the common options.
    /// @throws Failure  "configuration": the file cannot be used
    Draft draft() const;
    /// The engine's settings: the draft, its servers and the password of its DN.
    /// @param password  receives the password, from the source that the options or the file name
    /// @throws Failure  "usage": no server, a DN without a password, a password without a DN, or a
    ///                  SASL bind with either; "configuration": the password cannot be read, or the
    ///                  file contradicts itself
    LDAPLookup::Settings settings(Draft const& draft, Secret& password) const;

    Diagnostics::Level level() const;
    Stats stats() const;
    /// One of `recordFormats`.
    std::string const& format() const { return m_format; }
    /// @throws Failure  "usage": the command supports no other formats, and another one is chosen
    void requireTextOrJson(char const* command) const;
    /// Ends each key of the input and each record of the output: newline, or NUL with -0.
    char recordEnd() const { return m_endsInNul ? '\0' : '\n'; }
    /// Whether the password is read from descriptor 0.
    bool readsStandardInput() const;

    /// Enables OpenLDAP's debug output (-d), except levels that would print a password.
    /// @param sendsPassword  the command sends one besides that of the bind
    void debugOpenLDAP(Diagnostics const& diagnostics, bool sendsPassword) const;

private:
    void declareIdentityOn(OptionList& options);
    void declareDiagnosticsOn(OptionList& options);
    void declareOutputOn(OptionList& options);
    void completeIdentity(LDAPLookup::Settings& settings) const;
    void readPassword(Secret& password, std::string const& dn) const;
    bool namesPassword() const;

    std::optional<std::string> m_settingsPath;
    SettingOptions m_settings;
    std::optional<std::string> m_passwordFile;
    std::optional<int> m_passwordDescriptor;
    bool m_asksPassword = false;
    std::optional<int> m_debugLevel;
    std::string m_stats;
    std::string m_format = "text";
    bool m_isVerbose = false;
    bool m_isQuiet = false;
    bool m_endsInNul = false;
    mutable std::unique_ptr<SettingsFile> m_file;
};

/// Without a search base, takes that of OpenLDAP's configuration, if there is one.
/// @throws Failure  "configuration": it is invalid
void completeBase(Draft& draft);
/// The same.
/// @throws Failure  also "usage": there is no search base
void requireBase(Draft& draft);

/// The keys: arguments, or the lines of a file. Not thread-safe.
class KeyOptions {
public:
    void declareOn(OptionList& options);
    bool isGiven() const;
    /// @throws Failure  "usage": no keys, or both arguments and a file
    void check() const;
    bool readsStandardInput() const;
    /// Sets the byte that ends a key in a file; newline by default. Call it before the first key.
    void separator(char separator) { m_separator = separator; }

    /// Reads the next key, without the end of its line. Blocks only if `mayWait`.
    /// @throws Failure  "configuration": the file cannot be read
    LDAPLookup::Supply next(std::string& key, bool mayWait);
    /// The descriptor to poll before `next`, if the keys come from a pipe, a socket or a terminal;
    /// else -1.
    /// @throws Failure  "configuration": the file cannot be opened
    int descriptor();
    /// The number of keys, if known beforehand: of arguments or a regular file. Call it before the
    /// first key.
    std::optional<unsigned long> total();

private:
    LineReader& reader();

    std::string m_file;
    char m_separator = '\n';
    std::size_t m_used = 0; ///< arguments returned so far
    std::unique_ptr<LineReader> m_reader;
    DeclaredOption m_arguments;
    DeclaredOption m_fileOption;
};

} // namespace Solvane::Tool

#endif
