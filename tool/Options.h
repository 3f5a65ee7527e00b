// Groups of options that several subcommands share, apart from those of the settings' table. Each
// value is checked when the command line is read; a wrong one is a Failure "usage".
#ifndef SOLVANE_TOOL_OPTIONS_H
#define SOLVANE_TOOL_OPTIONS_H

#include "Console.h"
#include "Files.h"
#include "Secret.h"
#include "SettingOptions.h"
#include "SettingsFile.h"

#include <solvane/lookup/LDAPLookup.h>

#include <memory>
#include <optional>
#include <string>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace Solvane::Tool {

/// Whether and how --stats prints figures at the end.
enum class Stats { none, text, json };

/// The options of every subcommand, declared once: they stand before it or behind it.
class CommonOptions {
public:
    /// Declares the options on the program as a whole.
    void declareOn(CLI::App& app);
    /// Declares on a subcommand what CLI11 does not find on the program as a whole.
    void declareOnCommand(CLI::App& command);

    /// What -C names, read at the first call; without -C an empty one.
    /// @throws Failure  "configuration"
    SettingsFile const& file() const;

    /// What the file says, overridden by the options of every subcommand.
    /// @throws Failure  "configuration": the file cannot be used
    Draft draft() const;
    /// The engine's settings: the draft, its servers and the password of its DN.
    /// @param password  receives it, read where the options or the file say
    /// @throws Failure  "usage": no server, or a DN without a password; "configuration": a password
    ///                  that cannot be read
    LDAPLookup::Settings settings(Draft const& draft, Secret& password) const;

    Diagnostics::Level level() const;
    Stats stats() const;
    /// One of `recordFormats`.
    std::string const& format() const { return m_format; }
    /// What ends a key of the input and a record of the output: newline, or NUL with -0.
    char recordEnd() const { return m_endsInNul ? '\0' : '\n'; }
    /// Whether the password comes from descriptor 0.
    bool readsStandardInput() const;

    /// Switches OpenLDAP's own debug output (-d) on. What would print a password stays off.
    void debugOpenLDAP(Diagnostics const& diagnostics) const;

private:
    void declareIdentityOn(CLI::App& app);
    void declareDiagnosticsOn(CLI::App& app);
    void declareOutputOn(CLI::App& app);
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

/// @throws Failure  "usage": the settings have no base to search
void requireBase(Draft const& draft);

/// The keys: arguments, or the lines of a file.
class KeyOptions {
public:
    void declareOn(CLI::App& app);
    bool isGiven() const;
    /// @throws Failure  "usage": no keys, or both kinds
    void check() const;
    bool readsStandardInput() const;
    /// What ends a key in a file; newline unless it is set. Before the first key.
    void separator(char separator) { m_separator = separator; }

    /// Gives the next key; a line's end is no part of it. Never waits unless `mayWait`.
    /// @throws Failure  "configuration": the file cannot be read
    LDAPLookup::Supply next(std::string& key, bool mayWait);
    /// What `next` reads without waiting, if the keys come from a pipe, a socket or a terminal; else
    /// -1.
    /// @throws Failure  "configuration": the file cannot be opened
    int descriptor();
    /// How many keys there are, where that can be known beforehand: arguments, or a regular file.
    /// Before the first key.
    std::optional<unsigned long> total();

private:
    LineReader& reader();

    std::string m_file;
    char m_separator = '\n';
    std::size_t m_used = 0; ///< arguments that were given out
    std::unique_ptr<LineReader> m_reader;
    CLI::Option const* m_arguments = nullptr;
    CLI::Option const* m_fileOption = nullptr;
};

} // namespace Solvane::Tool

#endif
