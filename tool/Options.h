// Groups of options that several subcommands share.
#ifndef SOLVANE_TOOL_OPTIONS_H
#define SOLVANE_TOOL_OPTIONS_H

#include "Console.h"
#include "DirectorySession.h"
#include "QueryTemplate.h"

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace Solvane::Tool {

class Secret;

/// -v and -q.
class DiagnosticsOptions {
public:
    void declareOn(CLI::App& app);
    Diagnostics::Level level() const;

private:
    bool m_isVerbose = false;
    bool m_isQuiet = false;
};

/// -t or -T, --b and --g.
class TemplateOptions {
public:
    void declareOn(CLI::App& app);
    /// @throws Failure  "usage" none or two templates, "configuration" the file, "badInput" the
    /// text
    QueryTemplate queryTemplate() const;

private:
    std::string m_text;
    std::string m_file;
    std::string m_bValue;
    std::string m_gValue;
    CLI::Option const* m_textOption = nullptr;
    CLI::Option const* m_fileOption = nullptr;
};

/// The keys: arguments, or the lines of a file.
class KeyOptions {
public:
    void declareOn(CLI::App& app);
    /// @throws Failure  "usage": no keys, or both kinds
    void check() const;
    /// Calls `use` for each key in its order, as soon as it is read.
    /// @throws Failure  "configuration": the file cannot be read; what `use` throws
    void forEach(std::function<void(std::string const&)> const& use) const;
    bool readsStandardInput() const;

private:
    std::string m_file;
    CLI::Option const* m_arguments = nullptr;
    CLI::Option const* m_fileOption = nullptr;
};

/// -H, -D and the password's source, -P, -o.
class ServerOptions {
public:
    void declareOn(CLI::App& app);
    /// Reads the password into `password`, which the settings refer to.
    /// @throws Failure  "usage", "configuration"
    ServerSettings settings(Secret& password) const;
    /// The URI as it was given.
    std::string uri() const;
    bool readsStandardInput() const;

private:
    void checkPairing() const;
    void readPassword(Secret& password) const;
    unsigned int timeoutSeconds() const;

    std::string m_bindDn;
    std::string m_passwordFile;
    std::string m_passwordDescriptor;
    std::string m_protocol = "3";
    std::string m_openldapOption = "nettimeout=10";
    bool m_asksPassword = false;
    CLI::Option const* m_uris = nullptr;
    CLI::Option const* m_bindDnOption = nullptr;
    CLI::Option const* m_passwordFileOption = nullptr;
    CLI::Option const* m_passwordDescriptorOption = nullptr;
};

/// -b, -s, -a and --attrs.
class SearchOptions {
public:
    void declareOn(CLI::App& app);
    /// Everything of a search but its filter.
    /// @throws Failure  "usage": an attribute description that cannot be one
    LDAPSearch::Parameter parameter() const;

private:
    std::string m_base;
    std::string m_scope = "sub";
    std::string m_dereference = "never";
    std::string m_attributes;
};

} // namespace Solvane::Tool

#endif
