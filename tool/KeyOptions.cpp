// The keys, and how many of them at a time.
#include "Options.h"

#include "Failure.h"
#include "OptionValues.h"

namespace Solvane::Tool {

namespace {

constexpr int anyNumber = CLI::detail::expected_max_vector_size;

} // namespace

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

bool KeyOptions::isGiven() const { return m_arguments->count() != 0 || m_fileOption->count() != 0; }

void KeyOptions::check() const
{
    if (!isGiven()) {
        throw Failure(Outcome::usage, "there is no address",
                      "name one or more as arguments, or a file of them with -f");
    }
    if (m_arguments->count() != 0 && m_fileOption->count() != 0) {
        throw Failure(Outcome::usage, "there are addresses as arguments and with -f",
                      "name one or more as arguments, or a file of them with -f");
    }
}

bool KeyOptions::readsStandardInput() const { return m_file == "-"; }

LDAPLookup::Supply KeyOptions::next(std::string& key, bool mayWait)
{
    if (m_fileOption->count() != 0) {
        return reader().next(key, mayWait);
    }
    auto const& arguments = m_arguments->results();
    if (m_used == arguments.size()) {
        return LDAPLookup::Supply::end;
    }
    key = arguments[m_used++];
    return LDAPLookup::Supply::key;
}

std::optional<unsigned long> KeyOptions::total()
{
    if (m_fileOption->count() != 0) {
        return reader().count();
    }
    return m_arguments->count();
}

LineReader& KeyOptions::reader()
{
    if (!m_reader) {
        m_reader = std::make_unique<LineReader>("the file of keys", m_file, m_separator);
    }
    return *m_reader;
}

// Bulk

void BulkOptions::declareOn(CLI::App& app)
{
    LDAPLookup::Settings const defaults;
    addValue(app, "-j,--connections", m_connections, numberBetween(1, mostConnections), "JOBS",
             "Connections at a time")
        ->default_str(std::to_string(defaults.connections));
    addValue(app, "--window", m_window, numberBetween(1, widestWindow), "N",
             "Searches in flight on each connection")
        ->default_str(std::to_string(defaults.window));
    app.add_flag("--single", m_isSingle, "More than one entry for an address is an error");
    addValue(app, "--domains", m_domains, domainsIn, "LIST|@FILE",
             "Domains that are served, separated by commas; addresses of others are skipped");
    addValue(app, "--forms", m_forms, formsIn, "full,noext,bare,domain",
             "What of u+x@d is put into the template, in order of trial: u+x@d, u@d, u, @d")
        ->default_str("full");
    addValue(app, "--delimiter", m_delimiter, delimiterIn, "C",
             "What parts user and extension; empty: nothing does")
        ->default_str("+");
    addValue(app, "--nouser", m_noUser, numberBetween(1, 125), "STATUS",
             "Exit status instead of 1, as 67 for mail servers");
    app.add_flag("-c,--continue", m_goesOn, "Go on after an error; always done");
}

void BulkOptions::applyTo(LDAPLookup::Settings& settings, SettingsFile const& file) const
{
    LDAPLookup::Settings const& underneath = file.settings();
    settings.connections = m_connections.value_or(underneath.connections);
    settings.window = m_window.value_or(underneath.window);
    settings.domains = m_domains.value_or(underneath.domains);
    settings.forms = m_forms.value_or(underneath.forms);
    settings.extensionDelimiter = m_delimiter.value_or(underneath.extensionDelimiter);
}

int BulkOptions::exitStatusOfNotFound() const
{
    return m_noUser ? static_cast<int>(*m_noUser) : exitStatusOf(Outcome::notFound);
}

} // namespace Solvane::Tool
