// The keys, from arguments or a file.
#include "Options.h"

#include "Failure.h"

#include <CLI/CLI.hpp>

namespace Solvane::Tool {

namespace {

constexpr int anyNumber = CLI::detail::expected_max_vector_size;

} // namespace

void KeyOptions::declareOn(CLI::App& app)
{
    // CLI11 splits "[a,b]" if an option allows extra arguments, and drops "{}" when it converts to
    // a vector. So: any number of arguments, no extra ones, and the values read with results().
    m_arguments = app.add_option("ADDRESS", "E-mail address, split at its last '@'; put -- before "
                                            "one that begins with '-'")
                      ->expected(anyNumber, anyNumber)
                      ->take_all()
                      ->allow_extra_args(false)
                      ->type_name("");
    m_fileOption = app.add_option("-f,--file", m_file,
                                  "File with one address per line, '-' for standard input")
                       ->type_name("FILE");
}

bool KeyOptions::isGiven() const { return m_arguments->count() != 0 || m_fileOption->count() != 0; }

void KeyOptions::check() const
{
    if (!isGiven()) {
        throw Failure(Outcome::usage, "no address given",
                      "give addresses as arguments, or a file of them with -f");
    }
    if (m_arguments->count() != 0 && m_fileOption->count() != 0) {
        throw Failure(Outcome::usage, "addresses are given both as arguments and with -f",
                      "use one of the two");
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

int KeyOptions::descriptor()
{
    return m_fileOption->count() != 0 && !reader().isRegular() ? reader().descriptor() : -1;
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

} // namespace Solvane::Tool
