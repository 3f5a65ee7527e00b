// Declaration of the shared options, and their values as the rest of the tool wants them.
#include "Options.h"

#include "Failure.h"
#include "Files.h"
#include "Secret.h"
#include "Text.h"

#include <solvart/StringHelpers.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <sstream>

namespace Solvane::Tool {

namespace {

constexpr int anyNumber = CLI::detail::expected_max_vector_size;

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

/// A whole number without sign; none for anything else.
std::optional<unsigned int> numberIn(std::string const& text)
{
    unsigned int number = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

bool isGiven(CLI::Option const* option) { return option->count() != 0; }

/// The characters of attribute descriptions (RFC 4512 section 2.5), and of `*`, `+` and `@class`.
bool isAttributeSelector(std::string const& text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char character) {
        constexpr std::string_view others = "-.;*+@_";
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') ||
               others.find(character) != std::string_view::npos;
    });
}

std::string withoutLastNewline(std::string text)
{
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

} // namespace

// Diagnostics

void DiagnosticsOptions::declareOn(CLI::App& app)
{
    auto* const verbose =
        app.add_flag("-v,--verbose", m_isVerbose, "Say on standard error what is done");
    app.add_flag("-q,--quiet", m_isQuiet, "Nothing on standard error; the exit status remains")
        ->excludes(verbose);
}

Diagnostics::Level DiagnosticsOptions::level() const
{
    if (m_isVerbose) {
        return Diagnostics::Level::verbose;
    }
    return m_isQuiet ? Diagnostics::Level::quiet : Diagnostics::Level::normal;
}

// Template

void TemplateOptions::declareOn(CLI::App& app)
{
    auto* const text = app.add_option("-t,--template", m_text, "Query template, as '(mail=$m)'")
                           ->type_name("TEMPLATE");
    auto* const file =
        app.add_option("-T,--template-file", m_file, "File that holds the template, on one line")
            ->type_name("FILE")
            ->excludes(text);
    app.add_option("--b", m_bValue, "What $b inserts")->type_name("VALUE");
    app.add_option("--g", m_gValue, "What $g inserts")->type_name("VALUE");
    m_textOption = text;
    m_fileOption = file;
}

QueryTemplate TemplateOptions::queryTemplate() const
{
    if (!isGiven(m_textOption) && !isGiven(m_fileOption)) {
        refuse("there is no template", "give one with -t TEMPLATE or -T FILE");
    }
    std::string const text =
        isGiven(m_textOption) ? m_text : withoutLastNewline(readFile("the template file", m_file));
    return QueryTemplate(text, m_bValue, m_gValue);
}

// Keys

void KeyOptions::declareOn(CLI::App& app)
{
    // CLI11 takes "[a,b]" apart where an option may have extra arguments, and "{}" when it converts
    // to a vector. So: as many arguments as come, no extra ones, and read with results().
    m_arguments = app.add_option("ADDRESS", "E-mail address, split at its last '@'; after -- also "
                                            "one that begins with '-'")
                      ->expected(anyNumber, anyNumber)
                      ->take_all()
                      ->allow_extra_args(false)
                      ->type_name("");
    m_fileOption =
        app.add_option("-f,--file", m_file, "File with one address a line, '-' for standard input")
            ->type_name("FILE");
}

void KeyOptions::check() const
{
    if (isGiven(m_arguments) == isGiven(m_fileOption)) {
        refuse(isGiven(m_arguments) ? "there are addresses as arguments and with -f"
                                    : "there is no address",
               "name one or more as arguments, or a file of them with -f");
    }
}

void KeyOptions::forEach(std::function<void(std::string const&)> const& use) const
{
    if (!isGiven(m_fileOption)) {
        for (std::string const& key : m_arguments->results()) {
            use(key);
        }
        return;
    }
    LineReader lines(m_file);
    std::string key;
    while (lines.next(key)) {
        use(key);
    }
}

bool KeyOptions::readsStandardInput() const { return m_file == "-"; }

// Server

void ServerOptions::declareOn(CLI::App& app)
{
    m_uris = app.add_option("-H,--uri", "The server, ldap[s]://host[:port]; with ldaps:// any "
                                        "certificate is accepted")
                 ->required()
                 ->expected(1, anyNumber)
                 ->allow_extra_args(false)
                 ->type_name("URI");
    auto* const dn = app.add_option("-D,--bind-dn", m_bindDn, "Bind as this DN; else anonymously")
                         ->type_name("DN");
    auto* const prompt =
        app.add_flag("-W,--ask-password", m_asksPassword, "Ask for the password at the terminal");
    auto* const file = app.add_option("-y,--password-file", m_passwordFile,
                                      "File that holds the password and that its owner alone can "
                                      "read; one newline at its end is dropped")
                           ->type_name("FILE");
    auto* const descriptor = app.add_option("--password-fd", m_passwordDescriptor,
                                            "Descriptor from which the password is read to its end")
                                 ->type_name("N");
    prompt->needs(dn)->excludes(file)->excludes(descriptor);
    file->needs(dn)->excludes(descriptor);
    descriptor->needs(dn);
    app.add_option("-P,--protocol", m_protocol, "LDAP protocol version")
        ->check(CLI::IsMember({"2", "3"}))
        ->type_name("")
        ->capture_default_str();
    app.add_option("-o", m_openldapOption,
                   "nettimeout=S: seconds to connect, and to wait for each answer")
        ->type_name("OPTION")
        ->capture_default_str();
    m_bindDnOption = dn;
    m_passwordFileOption = file;
    m_passwordDescriptorOption = descriptor;
}

std::string ServerOptions::uri() const { return m_uris->results().front(); }

ServerSettings ServerOptions::settings(Secret& password) const
{
    if (m_uris->count() > 1) {
        refuse("-H was given more than once", "one server is asked, choose it");
    }
    checkPairing();
    ServerSettings settings{ServerUri(uri()), LDAPConnection::toProtocol(m_protocol == "2" ? 2 : 3),
                            timeoutSeconds(), m_bindDn, password};
    if (isGiven(m_bindDnOption)) {
        readPassword(password);
    }
    return settings;
}

bool ServerOptions::readsStandardInput() const { return numberIn(m_passwordDescriptor) == 0U; }

void ServerOptions::checkPairing() const
{
    if (!isGiven(m_bindDnOption)) {
        return;
    }
    if (m_bindDn.empty()) {
        refuse("-D names no DN", "leave -D out to ask anonymously");
    }
    if (faultIn(m_bindDn)) {
        refuse("the DN of -D is no line of UTF-8 text", "correct it");
    }
    if (!m_asksPassword && !isGiven(m_passwordFileOption) && !isGiven(m_passwordDescriptorOption)) {
        refuse("-D needs a password", "add -W, -y FILE or --password-fd N");
    }
}

void ServerOptions::readPassword(Secret& password) const
{
    if (m_asksPassword) {
        return password.ask(m_bindDn);
    }
    if (isGiven(m_passwordFileOption)) {
        return password.readFile(m_passwordFile);
    }
    auto const descriptor = numberIn(m_passwordDescriptor);
    if (!descriptor || *descriptor > 1000000) {
        // What was given is not shown: it may be the password itself.
        refuse("--password-fd takes the number of a descriptor",
               "open it first, as in --password-fd 3 3<FILE");
    }
    password.readDescriptor(static_cast<int>(*descriptor));
}

unsigned int ServerOptions::timeoutSeconds() const
{
    constexpr unsigned int longest = 2147483; // more would wrap in OpenLDAP's milliseconds
    constexpr std::string_view name = "nettimeout=";
    if (m_openldapOption.compare(0, name.size(), name) != 0) {
        refuse(fmt::format("-o {} is not offered", m_openldapOption),
               "-o takes nettimeout=SECONDS");
    }
    auto const seconds = numberIn(m_openldapOption.substr(name.size()));
    if (!seconds || *seconds == 0 || *seconds > longest) {
        refuse(fmt::format("-o {} is no time limit", m_openldapOption),
               fmt::format("give seconds from 1 to {}", longest));
    }
    return *seconds;
}

// Search

void SearchOptions::declareOn(CLI::App& app)
{
    app.add_option("-b,--base", m_base, "DN at which the search starts")
        ->required()
        ->type_name("BASE");
    app.add_option("-s,--scope", m_scope, "How far below the base is searched")
        ->check(CLI::IsMember({"base", "one", "sub"}))
        ->type_name("")
        ->capture_default_str();
    app.add_option("-a,--deref", m_dereference, "When aliases are followed")
        ->check(CLI::IsMember({"never", "search", "find", "always"}))
        ->type_name("")
        ->capture_default_str();
    app.add_option("--attrs", m_attributes, "Attributes to show, separated by commas; else all")
        ->type_name("A,B");
}

LDAPSearch::Parameter SearchOptions::parameter() const
{
    static std::map<std::string, LDAPSearch::Scope> const scopes = {
        {"base", LDAPSearch::ScopeBase},
        {"one", LDAPSearch::ScopeOneLevel},
        {"sub", LDAPSearch::ScopeSubtree}};
    static std::map<std::string, LDAPSearch::Deref> const dereferences = {
        {"never", LDAPSearch::DerefNever},
        {"search", LDAPSearch::DerefSearching},
        {"find", LDAPSearch::DerefFinding},
        {"always", LDAPSearch::DerefAlways}};

    if (faultIn(m_base)) {
        refuse("the DN of -b is no line of UTF-8 text", "correct it");
    }
    LDAPSearch::Parameter parameter(m_base);
    parameter.scope = scopes.at(m_scope);
    parameter.deref = dereferences.at(m_dereference);
    std::istringstream names(m_attributes);
    for (std::string name; std::getline(names, name, ',');) {
        stringLeftTrim(name);
        stringRightTrim(name);
        if (!isAttributeSelector(name)) {
            refuse(fmt::format("--attrs: '{}' is no attribute", name),
                   "separate names by commas, as in --attrs cn,mail");
        }
        parameter.attributes.emplace_back(name);
    }
    return parameter;
}

} // namespace Solvane::Tool
