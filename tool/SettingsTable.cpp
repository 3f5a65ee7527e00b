// The rows, and what connects a row's texts with the member that holds its value.
#include "SettingsTable.h"

#include "Files.h"
#include "SettingValues.h"

#include <fmt/format.h>

#include <algorithm>

namespace Solvane::Tool {

namespace {

using Settings = LDAPLookup::Settings;
using Lookup::TlsPolicy;
using Group = Setting::Group;

// Where a value is

template <typename Value> Value& at(Draft& draft, Value Draft::*member) { return draft.*member; }
template <typename Value> Value& at(Draft& draft, Value Settings::*member)
{
    return draft.lookup.*member;
}
template <typename Value> Value& at(Draft& draft, Value TlsPolicy::*member)
{
    return draft.lookup.tls.*member;
}

/// A reader that stores what `read` returns for a text.
template <typename Member, typename Read> Setting::Reader storing(Member member, Read read)
{
    return [=](std::string const& text) -> Setting::Assignment {
        return [member, value = read(text)](Draft& draft) { at(draft, member) = value; };
    };
}

/// Read alike in the settings file and on the command line.
template <typename Member, typename Read> Setting::Value value(Member member, Read read)
{
    auto const reader = storing(member, read);
    return {reader, reader, [=](Draft draft) { return textOf(at(draft, member)); }};
}

template <typename Member, typename Read, typename ReadOption>
Setting::Value value(Member member, Read read, ReadOption readOption)
{
    Setting::Value made = value(member, read);
    made.fromOption = storing(member, readOption);
    return made;
}

template <typename Member, typename Read> Setting::Value onlyOfFile(Member member, Read read)
{
    Setting::Value made = value(member, read);
    made.fromOption = nullptr;
    return made;
}

// What is not stored as it is read

/// The port of a host that names none may stand behind it in the file.
Setting::Value serverList()
{
    Setting::Value made;
    made.fromFile = [](std::string const& text) -> Setting::Assignment {
        auto const hosts = serversIn(text);
        for (std::string const& host : hosts) {
            ServerUri::fromHost(host, Draft().port); // refuses it on its line
        }
        return [hosts](Draft& draft) { draft.hosts = hosts; };
    };
    made.fromOption = [](std::string const& text) -> Setting::Assignment {
        return [uri = ServerUri(text)](Draft& draft) { draft.servers.push_back(uri); };
    };
    return made;
}

/// The file is read when the run begins, not while the command line is read.
Setting::Value templateFile()
{
    Setting::Value made;
    made.fromOption = [](std::string const& path) -> Setting::Assignment {
        return [path](Draft& draft) {
            draft.lookup.queryTemplate = withoutLastNewline(readFile("the template file", path));
        };
    };
    return made;
}

Setting::Value password()
{
    Setting::Value made;
    made.fromFile = [](std::string const&) -> Setting::Assignment { return [](Draft&) {}; };
    return made;
}

// clang-format off
// NOLINTNEXTLINE(readability-function-size): the table is data
std::vector<Setting> makeTable()
{
    auto const seconds = numberBetween(1, longestSeconds);
    auto const limit = numberBetween(0, largestLimit);
    auto const bytes = numberBetween(1024, largestLimit);
    return {
        { "server_host", Group::server, "-H,--uri", "URI", serverList(),
          "A server, ldap[s]://host[:port], or the servers of a domain, ldap[s]+srv:///dc=example,dc=com; "
          "given again: who is asked when it fails", true },
        { "server_port", Group::server, "", "N",
          onlyOfFile(&Draft::port, numberBetween(1, 65535)), "" },
        { "version", Group::server, "-P,--protocol", "2|3",
          value(&Draft::version, protocolIn), "LDAP protocol version" },
        { "timeout", Group::server, "-o", "nettimeout=S",
          value(&Settings::networkTimeout, seconds, networkTimeoutIn),
          "Seconds to connect, and to wait for each answer" },
        { "deadline", Group::server, "--deadline", "S", value(&Settings::deadline, durationIn),
          "Seconds for one key as a whole" },
        { "tls_ca_cert_file", Group::server, "--tls-ca", "FILE", value(&TlsPolicy::caFile, textIn),
          "PEM file of the authorities that may sign a server's certificate" },
        { "tls_verify", Group::server, "--tls-verify", "none|chain|full",
          value(&TlsPolicy::verify, tlsVerifyIn),
          "How far the certificate behind ldaps:// is checked; full: also the host's name" },
        { "name_servers", Group::server, "--name-servers", "LIST",
          value(&Settings::nameServers, nameServersIn),
          "Name servers to ask, address or address:port, separated by commas; else the system's" },
        { "refused_hold", Group::server, "--refused-hold", "S",
          value(&Settings::refusedHold, holdIn),
          "Seconds without another bind after a refused one" },
        { "entry_bytes", Group::server, "--entry-bytes", "N",
          value(&Settings::entryBytes, bytes), "Most bytes of one entry" },

        { "bind", Group::identity, "", "yes|no", onlyOfFile(&Draft::binds, booleanIn), "" },
        { "bind_dn", Group::identity, "-D,--bind-dn", "DN",
          value(&Settings::bindDn, dnIn, bindDnIn), "Bind as this DN; else anonymously" },
        { passwordName.data(), Group::identity, "", "PASSWORD", password(), "" },

        { "search_base", Group::search, "-b,--base", "BASE", value(&Settings::base, dnIn),
          "DN at which the search starts" },
        { "scope", Group::search, "-s,--scope", "base|one|sub", value(&Settings::scope, scopeIn),
          "How far below it is searched" },
        { "dereference", Group::search, "-a,--deref", "never|search|find|always",
          value(&Settings::deref, dereferenceIn), "When aliases are followed" },
        { "result_attribute", Group::search, "--attrs", "A,B",
          value(&Settings::attributes, attributesIn),
          "Attributes to show, separated by commas; else all" },
        { "size_limit", Group::search, "-z,--size-limit", "N", value(&Settings::entryLimit, limit),
          "Most entries for one key; 0: no limit" },
        { "time_limit", Group::search, "-l,--time-limit", "S", value(&Settings::timeLimit, limit),
          "Seconds that the server may search; 0: no limit" },
        { "references", Group::search, "--references", "defer|ignore",
          value(&Settings::references, referencesIn),
          "What an answer of references alone means: try later, or not found" },

        { "query_filter", Group::queryTemplate, "-t,--template", "TEMPLATE",
          value(&Settings::queryTemplate, ourTemplate, textIn),
          "Query template, as '(mail=$m)'" },
        { "query_filter", Group::queryTemplate, "-T,--template-file", "FILE", templateFile(),
          "File that holds the template, on one line" },
        { "b_value", Group::queryTemplate, "--b-value", "VALUE",
          value(&Settings::bValue, textIn), "What $b inserts; --b for short" },
        { "g_value", Group::queryTemplate, "--g-value", "VALUE",
          value(&Settings::gValue, textIn), "What $g inserts; --g for short" },

        { "connections", Group::bulk, "-j,--connections", "JOBS",
          value(&Settings::connections, numberBetween(1, mostConnections)),
          "Connections at a time" },
        { "window", Group::bulk, "--window", "N",
          value(&Settings::window, numberBetween(1, widestWindow)),
          "Searches in flight on each connection" },
        { "domain", Group::bulk, "--domains", "LIST|@FILE", value(&Settings::domains, domainsIn),
          "Domains that are served, separated by commas; addresses of others are skipped" },
        { "forms", Group::bulk, "--forms", "full,noext,bare,domain",
          value(&Settings::forms, formsIn),
          "What of u+x@d is put into the template, in order of trial: u+x@d, u@d, u, @d" },
        { "delimiter", Group::bulk, "--delimiter", "C",
          value(&Settings::extensionDelimiter, delimiterIn),
          "Separates user and extension; empty: nothing does" },
        { "ascii_domains", Group::bulk, "--ascii-domains", "yes|no",
          value(&Settings::asciiDomains, booleanIn),
          "Whether an internationalized domain is looked up in Unicode and in ASCII" },
        { "key_bytes", Group::bulk, "--key-bytes", "N",
          value(&Settings::keyBytes, numberBetween(1, largestLimit)),
          "Most bytes of an address; a longer one is an error" },
        { "answer_bytes", Group::bulk, "--answer-bytes", "N",
          value(&Settings::answerBytes, bytes), "Most bytes of all entries of an address" },
    };
}
// clang-format on

} // namespace

std::vector<LDAPLookup::Server> Draft::serverList() const
{
    std::vector<ServerUri> uris = servers;
    if (uris.empty()) {
        for (std::string const& host : hosts) {
            uris.push_back(ServerUri::fromHost(host, port));
        }
    }
    std::vector<LDAPLookup::Server> made;
    made.reserve(uris.size());
    for (ServerUri const& uri : uris) {
        made.push_back({uri.host, uri.port, uri.isSecure, version, uri.srvDomain});
    }
    return made;
}

std::string Setting::defaultText() const { return value.text ? value.text(Draft()) : ""; }

std::vector<Setting> const& settingsTable()
{
    static std::vector<Setting> const table = makeTable();
    return table;
}

Setting const* settingOfFile(std::string_view name)
{
    auto const& table = settingsTable();
    auto const found = std::find_if(table.begin(), table.end(), [&](Setting const& setting) {
        return setting.name == name && setting.value.fromFile != nullptr;
    });
    return found == table.end() ? nullptr : &*found;
}

} // namespace Solvane::Tool
