// The rows of the table; each connects a row's texts with the member for its value.
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

// The member for a value

template <typename Value> Value& at(Draft& draft, Value Draft::*member) { return draft.*member; }
template <typename Value> Value& at(Draft& draft, Value Settings::*member)
{
    return draft.lookup.*member;
}
template <typename Value> Value& at(Draft& draft, Value TlsPolicy::*member)
{
    return draft.lookup.tls.*member;
}

/// A reader that stores `read(text)`.
template <typename Member, typename Read> Setting::Reader storing(Member member, Read read)
{
    return [=](std::string const& text) -> Setting::Assignment {
        return [member, value = read(text)](Draft& draft) { at(draft, member) = value; };
    };
}

/// A value that is read the same way from the settings file and the command line.
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

// Values with a form of their own

/// Hosts are completed later: "server_port" may follow "server_host" in the file.
Setting::Value serverList()
{
    Setting::Value made;
    made.fromFile = [](std::string const& text) -> Setting::Assignment {
        auto const hosts = serversIn(text);
        for (std::string const& host : hosts) {
            ServerUri::fromHost(host, Draft().port); // validates it while its line is known
        }
        return [hosts](Draft& draft) { draft.hosts = hosts; };
    };
    made.fromOption = [](std::string const& text) -> Setting::Assignment {
        return [uri = ServerUri(text)](Draft& draft) { draft.servers.push_back(uri); };
    };
    return made;
}

/// An option of OpenLDAP's tools may be another one.
Setting::Value networkTimeout()
{
    auto const ofFile = numberBetween(1, longestSeconds);
    Setting::Value made = value(&Settings::networkTimeout, ofFile, networkTimeoutIn);
    made.fromOption = [timeout = made.fromOption](std::string const& text) -> Setting::Assignment {
        if (auto const width = ldifWrapIn(text)) {
            return [width](Draft& draft) { draft.ldifWidth = *width; };
        }
        return timeout(text);
    };
    return made;
}

/// The file is read when the run begins, not while the command line is parsed.
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

/// An option without a value, for what is the default.
Setting::Value simpleBind()
{
    Setting::Value made;
    made.fromOption = [](std::string const&) -> Setting::Assignment {
        return [](Draft& draft) {
            draft.lookup.mechanism = Settings().mechanism;
            draft.lookup.authorizationId.clear();
        };
    };
    return made;
}

/// Another name for a setting: its default is shown with that one.
Setting::Value tlsRequireCert()
{
    Setting::Value made = onlyOfFile(&TlsPolicy::verify, tlsRequireCertIn);
    made.text = nullptr;
    return made;
}

/// The same.
Setting::Value resultFilter()
{
    Setting::Value made = onlyOfFile(&Settings::resultFormat, resultFormatIn);
    made.text = nullptr;
    return made;
}

// clang-format off
// NOLINTNEXTLINE(readability-function-size): the table is data
std::vector<Setting> makeTable()
{
    auto const limit = numberBetween(0, largestLimit);
    auto const bytes = numberBetween(1024, largestLimit);
    return {
        { "server_host", Group::server, "-H,--uri", "URI", serverList(),
          "Server, ldap[s]://host[:port] or ldapi://%2Fpath, or a domain's servers, "
          "ldap[s]+srv:///dc=example,dc=com; repeat it to name servers to fail over to", true },
        { "server_port", Group::server, "", "N",
          onlyOfFile(&Draft::port, numberBetween(1, 65535)), "" },
        { "version", Group::server, "-P,--protocol", "2|3",
          value(&Draft::version, protocolIn), "LDAP protocol version" },
        { "timeout", Group::server, "-o", "nettimeout=S",
          networkTimeout(),
          "Seconds for each step of connecting, and until a silent server counts as failed; or "
          "ldif-wrap=N|no: fold lines of LDIF after N bytes, or not", true },
        { "deadline", Group::server, "--deadline", "S", value(&Settings::deadline, durationIn),
          "Seconds for each key in total" },
        { "start_tls", Group::server, "-Z,--start-tls", "", value(&Draft::startTls, booleanIn),
          "Require StartTLS on ldap:// servers; -Z and -ZZ are the same: plain text is never a "
          "fallback" },
        { "tls_ca_cert_file", Group::server, "--tls-ca", "FILE", value(&TlsPolicy::caFile, textIn),
          "PEM file of trusted certificate authorities" },
        { "tls_ca_cert_dir", Group::server, "--tls-ca-dir", "DIR",
          value(&TlsPolicy::caFolder, textIn), "Directory of such files" },
        { "tls_crl_file", Group::server, "--tls-crl", "FILE", value(&TlsPolicy::crlFile, textIn),
          "PEM file of revocation lists" },
        { "tls_verify", Group::server, "--tls-verify", "none|chain|full",
          value(&TlsPolicy::verify, tlsVerifyIn),
          "How a server's certificate is verified; full: also the host name" },
        { "tls_require_cert", Group::server, "", "yes|no", tlsRequireCert(), "" },
        { "tls_cert", Group::server, "--tls-cert", "FILE",
          value(&TlsPolicy::certificateFile, textIn), "PEM file of the client certificate" },
        { "tls_key", Group::server, "--tls-key", "FILE", value(&TlsPolicy::keyFile, textIn),
          "PEM file of its key, not encrypted" },
        { "tls_cipher_suite", Group::server, "--tls-ciphers", "LIST",
          value(&TlsPolicy::cipherSuite, textIn), "Priority string of GnuTLS" },
        { "tls_protocol_min", Group::server, "--tls-min", "1.0|1.1|1.2|1.3",
          value(&TlsPolicy::minimumVersion, tlsVersionIn), "Lowest version of TLS" },
        { "name_servers", Group::server, "--name-servers", "LIST",
          value(&Settings::nameServers, nameServersIn),
          "Name servers, ADDRESS or ADDRESS:PORT, separated by commas; default: the system's" },
        { "refused_hold", Group::server, "--refused-hold", "S",
          value(&Settings::refusedHold, holdIn),
          "Seconds to wait after a refused bind before the next one" },
        { "entry_bytes", Group::server, "--entry-bytes", "N",
          value(&Settings::entryBytes, bytes), "Maximum bytes of one entry" },

        { "bind", Group::identity, "", "yes|no", onlyOfFile(&Draft::binds, booleanIn), "" },
        { "bind_dn", Group::identity, "-D,--bind-dn", "DN",
          value(&Settings::bindDn, dnIn, bindDnIn), "Bind as this DN; default: anonymous" },
        { passwordName.data(), Group::identity, "", "PASSWORD", password(), "" },
        { "sasl_mechanism", Group::identity, "-Y,--sasl-mechanism", "external|gssapi",
          value(&Settings::mechanism, saslMechanismIn),
          "SASL bind: with the client certificate or the user of a UNIX socket, or with Kerberos" },
        { "sasl_mechanism", Group::identity, "-x,--simple", "", simpleBind(),
          "Simple bind, as without -Y; overrides sasl_mechanism" },
        { "sasl_authz_id", Group::identity, "-X,--sasl-authz-id", "ID",
          value(&Settings::authorizationId, authorizationIdIn),
          "Identity to act as after a SASL bind, dn:... or u:..." },

        { "search_base", Group::search, "-b,--base", "BASE", value(&Settings::base, dnIn),
          "Search base DN" },
        { "scope", Group::search, "-s,--scope", "base|one|sub", value(&Settings::scope, scopeIn),
          "Search scope" },
        { "dereference", Group::search, "-a,--deref", "never|search|find|always",
          value(&Settings::deref, dereferenceIn), "When to dereference aliases" },
        { "result_attribute", Group::search, "--attrs", "A,B",
          value(&Settings::attributes, attributesIn),
          "Attributes to return, separated by commas; default: all" },
        { "size_limit", Group::search, "-z,--size-limit", "N", value(&Settings::entryLimit, limit),
          "Maximum number of entries for one key; 0: no limit" },
        { "time_limit", Group::search, "-l,--time-limit", "S", value(&Settings::timeLimit, limit),
          "Time limit for a search on the server in seconds; 0: no limit" },
        { "references", Group::search, "--references", "defer|ignore",
          value(&Settings::references, referencesIn),
          "Result of an answer with only references: try later, or not found" },

        { "special_result_attribute", Group::results, "--special-attrs", "A,B",
          value(&Settings::specialResultAttributes, attributesIn),
          "Attributes that name members of a group, by DN or LDAP URL" },
        { "leaf_result_attribute", Group::results, "--leaf-attrs", "A,B",
          value(&Settings::leafResultAttributes, attributesIn),
          "Attributes that count only in entries without members" },
        { "terminal_result_attribute", Group::results, "--terminal-attrs", "A,B",
          value(&Settings::terminalResultAttributes, attributesIn),
          "Attributes that alone count in an entry that has some" },
        { "expansion_limit", Group::results, "--expansion-limit", "N",
          value(&Settings::expansionLimit, limit),
          "Maximum number of results of an address; 0: no limit" },
        { "recursion_limit", Group::results, "--recursion-limit", "N",
          value(&Settings::recursionLimit, numberBetween(1, largestLimit)),
          "Maximum number of levels of groups" },
        { "result_format", Group::results, "--result-format", "FORMAT",
          value(&Settings::resultFormat, resultFormatIn),
          "Text that each value becomes, for example 'smtp:[%s]'" },
        { "result_filter", Group::results, "", "FORMAT", resultFilter(), "" },

        { "query_filter", Group::queryTemplate, "-t,--template", "TEMPLATE",
          value(&Settings::queryTemplate, textIn),
          "Query template, for example '(mail=$m)'" },
        { "query_filter", Group::queryTemplate, "-T,--template-file", "FILE", templateFile(),
          "File with the template on one line" },
        { "b_value", Group::queryTemplate, "--b-value", "VALUE",
          value(&Settings::bValue, textIn), "Value of $b; --b for short" },
        { "g_value", Group::queryTemplate, "--g-value", "VALUE",
          value(&Settings::gValue, textIn), "Value of $g; --g for short" },

        { "postfix_rules", Group::queryTemplate, "", "yes|no",
          onlyOfFile(&Settings::postfixRules, booleanIn), "" },

        { "connections", Group::bulk, "-j,--connections", "JOBS",
          value(&Settings::connections, numberBetween(1, mostConnections)),
          "Number of parallel connections" },
        { "window", Group::bulk, "--window", "N",
          value(&Settings::window, numberBetween(1, widestWindow)),
          "Maximum number of searches in flight on each connection" },
        { "verify_connections", Group::bulk, "", "N",
          onlyOfFile(&Settings::verifyConnections, numberBetween(1, mostConnections)), "" },
        { "domain", Group::bulk, "--domains", "LIST|@FILE", value(&Settings::domains, domainsIn),
          "Served domains, separated by commas; addresses in other domains are skipped" },
        { "forms", Group::bulk, "--forms", "full,noext,bare,domain",
          value(&Settings::forms, formsIn),
          "Forms of u+x@d to look up, in this order: u+x@d, u@d, u, @d" },
        { "delimiter", Group::bulk, "--delimiter", "C",
          value(&Settings::extensionDelimiter, delimiterIn),
          "Separator of user and extension; empty: none" },
        { "ascii_domains", Group::bulk, "--ascii-domains", "yes|no",
          value(&Settings::asciiDomains, booleanIn),
          "Look up internationalized domains in both Unicode and ASCII form" },
        { "key_bytes", Group::bulk, "--key-bytes", "N",
          value(&Settings::keyBytes, numberBetween(1, largestLimit)),
          "Maximum bytes of an address; a longer one is an error" },
        { "answer_bytes", Group::bulk, "--answer-bytes", "N",
          value(&Settings::answerBytes, bytes), "Maximum bytes of all entries of an address" },
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
        bool const isPlain = !uri.isSecure && uri.socketPath.empty();
        made.push_back({uri.host, uri.port, uri.isSecure, version, uri.srvDomain,
                        startTls && isPlain, uri.socketPath});
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
