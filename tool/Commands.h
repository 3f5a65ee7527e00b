// The subcommands of the tool, and the command line that chooses one.
#ifndef SOLVANE_TOOL_COMMANDS_H
#define SOLVANE_TOOL_COMMANDS_H

#include "Console.h"
#include "OptionList.h"
#include "Options.h"
#include "Outcome.h"

#include <solvane/lookup/QueryTemplate.h>

#include <solvane/ldap/LDAPControls.h>

#include <list>
#include <memory>
#include <optional>
#include <string>

namespace Solvane::Tool {

class CheckReport;
class CommonOptions;
class RecordWriter;
struct SearchQuery;

/// Declares its options, and runs once they are read.
class Command {
public:
    Command() = default;
    virtual ~Command() = default;
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;

    virtual char const* name() const = 0;
    virtual char const* description() const = 0;
    virtual void declareOn(OptionList& options) = 0;
    /// Whether it sends a password besides that of the common options.
    virtual bool sendsPassword() const { return false; }

    /// @param common  the options that all subcommands share; the level of `diagnostics` is theirs
    /// @return exit status of the process: `exitStatusOf` the worst outcome, unless the user asked
    ///         for another number
    /// @throws Failure  what ends the whole run
    virtual int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) = 0;
};

/// "add": the entries of an LDIF file, put into a directory.
class AddCommand final : public Command {
public:
    char const* name() const override { return "add"; }
    char const* description() const override { return "Add the entries of an LDIF file"; }
    void declareOn(OptionList& options) override;
    bool sendsPassword() const override { return true; } // it may be a value
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    Outcome add(CommonOptions const& common, Output& output, Diagnostics& diagnostics) const;
    Outcome show(CommonOptions const& common, Output& output, Diagnostics& diagnostics) const;

    std::string m_file = "-";
    SettingOptions m_settings;
    bool m_goesOn = false;
    bool m_onlyShows = false;
};

/// "apply": the changes of an LDIF file, made in a directory.
class ApplyCommand final : public Command {
public:
    char const* name() const override { return "apply"; }
    char const* description() const override
    {
        return "Apply the changes of an LDIF file; can write a file that undoes them";
    }
    void declareOn(OptionList& options) override;
    bool sendsPassword() const override { return true; } // it may be a value
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    Outcome apply(CommonOptions const& common, Output& output, Diagnostics& diagnostics) const;
    Outcome show(CommonOptions const& common, Output& output, Diagnostics& diagnostics) const;

    std::string m_file = "-";
    std::string m_undoFile; ///< empty: none
    bool m_goesOn = false;
    bool m_onlyShows = false;
};

/// "check": every step from the settings to an answer, for one server after the other.
class CheckCommand final : public Command {
public:
    char const* name() const override { return "check"; }
    char const* description() const override
    {
        return "Try every step of a lookup and say which fails, and why";
    }
    void declareOn(OptionList& options) override;
    /// @return the table's exit status, or with --nagios 0 to 3
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    void check(CommonOptions const& common, CheckReport& report);

    SettingOptions m_settings;
    std::string m_probe; ///< key to look up; empty: none
    std::optional<unsigned int> m_repeat;
    bool m_isForNagios = false;
};

/// "compare": whether an entry has a value.
class CompareCommand final : public Command {
public:
    char const* name() const override { return "compare"; }
    char const* description() const override { return "Ask whether an entry has a value"; }
    void declareOn(OptionList& options) override;
    bool sendsPassword() const override { return true; } // it may be a value
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    std::string m_dn;
    std::string m_assertion; ///< attribute:value or attribute::base64
};

/// "expand": what filter a template makes of an address, and what is wrong with the template, without
/// any network.
class ExpandCommand final : public Command {
public:
    char const* name() const override { return "expand"; }
    char const* description() const override
    {
        return "Print the filter that a template makes of each address; asks no server";
    }
    void declareOn(OptionList& options) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    class Filters;

    Outcome expandKeys(Lookup::QueryTemplate const& queryTemplate, char recordEnd, Output& output,
                       Diagnostics& diagnostics);
    bool nextKey(std::string& key, Filters& filters);

    SettingOptions m_settings;
    KeyOptions m_keys;
    bool m_explains = false;
    bool m_lints = false;
};

/// "import": one of Postfix's LDAP tables, made settings.
class ImportCommand final : public Command {
public:
    char const* name() const override { return "import"; }
    char const* description() const override
    {
        return "Make settings of one of Postfix's LDAP tables";
    }
    void declareOn(OptionList& options) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    std::string m_table;
    std::string m_source; ///< empty: the file has one table
    std::string m_output; ///< empty: standard output
    bool m_replaces = false;
};

/// "lookup": the entries that a template finds for each address.
class LookupCommand final : public Command {
public:
    char const* name() const override { return "lookup"; }
    char const* description() const override
    {
        return "Search a directory for each address and print what it has";
    }
    void declareOn(OptionList& options) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    std::unique_ptr<RecordWriter> writer(CommonOptions const& common, Draft const& draft) const;

    SettingOptions m_settings;
    KeyOptions m_keys;
    int m_ldifLeaves = 0;                 ///< number of L's; 0: --format decides
    std::optional<unsigned int> m_noUser; ///< exit status instead of "not found"
    bool m_isSingle = false;              ///< more than one entry for a key is an error
    bool m_needsValue = false;            ///< found without a value counts as not found
    bool m_goesOn = false;                ///< asked for, and done anyway
};

/// "passwd": a new password for a user.
class PasswdCommand final : public Command {
public:
    char const* name() const override { return "passwd"; }
    char const* description() const override { return "Change the password of a user"; }
    void declareOn(OptionList& options) override;
    bool sendsPassword() const override { return true; }
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    /// Where a password comes from.
    struct Source {
        bool asks = false;               ///< at the terminal
        std::optional<std::string> file; ///< else from this file
        std::optional<int> descriptor;   ///< else from this descriptor

        bool isGiven() const { return asks || file || descriptor; }
        bool isPrompted() const { return !file && !descriptor; }
        void declareOn(OptionList& options, char const* letterOfPrompt, char const* letterOfFile,
                       std::string const& which);
        void read(Secret& password, std::string const& user) const;
    };

    void check(CommonOptions const& common, bool isBound) const;
    void readNew(Secret& password, std::string const& user) const;

    std::string m_user; ///< empty: the identity of the bind
    Source m_new;
    Source m_old;
    bool m_generates = false;
};

/// "search": the entries that a filter finds, as they come.
class SearchCommand final : public Command {
public:
    char const* name() const override { return "search"; }
    char const* description() const override { return "Print the entries that a filter finds"; }
    void declareOn(OptionList& options) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    SearchQuery query(Draft& draft) const;
    void takeArguments(SearchQuery& query) const;
    void takeExtension(std::string const& text);
    std::unique_ptr<RecordWriter> writer(CommonOptions const& common, Draft const& draft) const;

    SettingOptions m_settings;
    DeclaredOption m_arguments; ///< a filter, and attributes
    std::optional<int> m_scope; ///< LDAP_SCOPE_...; empty: that of the settings
    std::optional<unsigned int> m_sizeLimit;
    std::optional<unsigned int> m_timeLimit;
    std::optional<unsigned int> m_pageSize;
    std::optional<bool> m_subentries; ///< whether subentries are visible (RFC 3672)
    std::optional<std::list<LDAPControls::SortKey>> m_sortKeys;
    int m_manages = 0;    ///< number of M's; 2: critical
    int m_ldifLeaves = 0; ///< number of L's; 0: --format decides
    bool m_isTypesOnly = false;
    bool m_onlyCounts = false;
};

/// "status": the statistics of a running service.
class StatusCommand final : public Command {
public:
    char const* name() const override { return "status"; }
    char const* description() const override
    {
        return "Show the statistics of a running solvane-ldapd";
    }
    void declareOn(OptionList& options) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    std::string m_socket = "unix:/run/solvane-ldap/stats";
    std::string m_interval; ///< of --watch; "true" without a value; empty: once
};

/// "verify": whether the password of an address is right.
class VerifyCommand final : public Command {
public:
    char const* name() const override { return "verify"; }
    char const* description() const override
    {
        return "Verify the password of an address by a bind as its entry";
    }
    void declareOn(OptionList& options) override;
    bool sendsPassword() const override { return true; }
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    void readPassword(Secret& password) const;

    SettingOptions m_settings;
    std::string m_key;
    std::optional<std::string> m_file; ///< with the user's password
    std::optional<int> m_descriptor;   ///< likewise
};

/// "whoami": the identity that a server sees.
class WhoAmICommand final : public Command {
public:
    char const* name() const override { return "whoami"; }
    char const* description() const override
    {
        return "Print the identity that the server sees after the bind";
    }
    void declareOn(OptionList& options) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;
};

/// Runs the tool.
/// @return exit status of the process
/// @throws Failure     an error to report
/// @throws ReaderGone  the reader of standard output is gone
int runCommandLine(int count, char** arguments, Output& output, Diagnostics& diagnostics);

} // namespace Solvane::Tool

#endif
