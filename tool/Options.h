// Groups of options that several subcommands share. Each value is checked when the command line is
// read; a wrong one is a Failure "usage".
#ifndef SOLVANE_TOOL_OPTIONS_H
#define SOLVANE_TOOL_OPTIONS_H

#include "Console.h"
#include "Files.h"
#include "Secret.h"
#include "ServerUri.h"
#include "SettingsFile.h"

#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/QueryTemplate.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

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

    /// Servers, times, identity and TLS: the file's, overridden by the options. All else is as the
    /// file has it, else as by default. Reads the password into `password` besides.
    /// @throws Failure  "usage": no server, or a DN without a password; "configuration": a file or
    ///                  password that cannot be used
    LDAPLookup::Settings settings(Secret& password) const;

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
    void declareServersOn(CLI::App& app);
    void declareIdentityOn(CLI::App& app);
    void declareDiagnosticsOn(CLI::App& app);
    void declareOutputOn(CLI::App& app);
    void readServers(std::vector<std::string> const& texts);
    void applyServers(LDAPLookup::Settings& settings) const;
    void applyIdentity(LDAPLookup::Settings& settings, Secret& password) const;
    void readPassword(Secret& password, std::string const& dn) const;
    bool namesPassword() const;

    std::optional<std::string> m_settingsPath;
    std::vector<ServerUri> m_servers;
    std::optional<LDAPConnection::Protocol> m_version;
    std::optional<unsigned int> m_networkTimeout; ///< seconds
    std::optional<unsigned int> m_deadline;       ///< seconds
    std::optional<std::string> m_caFile;
    std::optional<Lookup::TlsVerify> m_tlsVerify;
    std::optional<std::string> m_bindDn;
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

/// -t or -T, --b-value and --g-value.
class TemplateOptions {
public:
    void declareOn(CLI::App& app);
    /// Whether there is a template, here or in the file.
    bool isGiven(SettingsFile const& file) const;
    /// The template, unchecked.
    /// @throws Failure  "usage" none, "configuration" the file
    Lookup::QueryTemplate queryTemplate(SettingsFile const& file) const;
    /// Sets template and values in what `CommonOptions::settings` made.
    /// @throws Failure  as `queryTemplate`
    void applyTo(LDAPLookup::Settings& settings, SettingsFile const& file) const;

private:
    std::optional<std::string> m_text;
    std::optional<std::string> m_file;
    std::optional<std::string> m_bValue;
    std::optional<std::string> m_gValue;
};

/// -b, -s, -a, --attrs, -z and -l.
class SearchOptions {
public:
    /// Whether there must be a base, here or in the file.
    enum class Base { required, optional };

    explicit SearchOptions(Base base = Base::required) : m_baseIs(base) {}

    void declareOn(CLI::App& app);
    /// Whether there is a base, here or in the file.
    bool hasBase(SettingsFile const& file) const;
    /// Sets what is given in what `CommonOptions::settings` made.
    /// @throws Failure  "usage": no base
    void applyTo(LDAPLookup::Settings& settings, SettingsFile const& file) const;

private:
    Base m_baseIs;
    std::optional<std::string> m_base;
    std::optional<LDAPSearch::Scope> m_scope;
    std::optional<LDAPSearch::Deref> m_dereference;
    std::optional<std::vector<std::string>> m_attributes;
    std::optional<unsigned int> m_entryLimit;
    std::optional<unsigned int> m_timeLimit; ///< seconds
};

/// How many keys at a time, and what is made of each: -j, --window, --single, --domains, --forms,
/// --delimiter, --nouser; -c, which changes nothing.
class BulkOptions {
public:
    void declareOn(CLI::App& app);
    /// Sets what is given in what `CommonOptions::settings` made.
    void applyTo(LDAPLookup::Settings& settings, SettingsFile const& file) const;
    /// Whether more than one entry for a key is an error.
    bool single() const { return m_isSingle; }
    /// Exit status where the worst outcome is "not found".
    int exitStatusOfNotFound() const;

private:
    std::optional<unsigned int> m_connections;
    std::optional<unsigned int> m_window;
    std::optional<std::vector<std::string>> m_domains;
    std::optional<std::vector<LDAPLookup::Form>> m_forms;
    std::optional<char> m_delimiter;
    std::optional<unsigned int> m_noUser;
    bool m_isSingle = false;
    bool m_goesOn = false; ///< asked for, and done anyway
};

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
