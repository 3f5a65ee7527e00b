// The "search" command: its options, its output, and what it says about the end of a search.
#include "Commands.h"

#include "Json.h"
#include "OpenLDAP.h"
#include "OptionList.h"
#include "Options.h"
#include "Outcome.h"
#include "Progress.h"
#include "RecordWriter.h"
#include "SearchRun.h"
#include "Secret.h"
#include "Sessions.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPFilter.h>
#include <solvane/ldap/impl/LDAPAdapters.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string_view>
#include <utility>

#include <strings.h>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "The first argument is the filter if it contains '='; all others are attributes, such as cn,\n"
    "'*' (all user attributes), + (all operational attributes) or 1.1 (none). Entries are printed\n"
    "as they arrive; the number of entries is not limited by memory. References to other servers\n"
    "are printed and not followed. Of the settings of lookups, only base, scope, dereference and\n"
    "references apply.\n\n"
    "Exit status:\n"
    "   0  at least one entry\n"
    "   1  no entry\n"
    "  64  usage error\n"
    "  65  invalid filter, or a sort key that the server cannot sort by\n"
    "  69  refused permanently, unsupported, or only references to other servers\n"
    "  74  cannot write to standard output\n"
    "  75  try later: server down, no answer in time, busy, a limit hit\n"
    "  77  credentials, access or certificate refused\n"
    "  78  base missing, or an unusable setting, file or password";

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

// Options

/// [-]ATTRIBUTE[:RULE], separated by commas.
std::list<LDAPControls::SortKey> sortKeysIn(std::string const& text)
{
    std::list<LDAPControls::SortKey> keys;
    for (std::string word : wordsIn(text)) {
        LDAPControls::SortKey key;
        key.isReverse = word.front() == '-';
        word.erase(0, key.isReverse ? 1 : 0);
        auto const colon = word.find(':');
        key.type = word.substr(0, colon);
        key.rule = colon == std::string::npos ? "" : word.substr(colon + 1);
        bool const isWhole = !key.type.empty() && (colon == std::string::npos || !key.rule.empty());
        if (!isWhole || !isAlphanumeric(key.type, "-.;_") || !isAlphanumeric(key.rule, "-._")) {
            refuse(fmt::format("invalid sort key '{}'", oneLine(word)),
                   "write [-]ATTRIBUTE[:RULE], separated by commas, as in sn,-createTimestamp");
        }
        keys.push_back(key);
    }
    if (keys.empty()) {
        refuse("no sort key given", "name an attribute, as in --sort sn");
    }
    return keys;
}

int searchScopeIn(std::string const& text)
{
    // clang-format off
    constexpr std::pair<char const*, int> scopes[] = {
        { "base",        LDAP_SCOPE_BASE },
        { "one",         LDAP_SCOPE_ONELEVEL },
        { "onelevel",    LDAP_SCOPE_ONELEVEL },
        { "sub",         LDAP_SCOPE_SUBTREE },
        { "subtree",     LDAP_SCOPE_SUBTREE },
        { "children",    LDAP_SCOPE_CHILDREN },
        { "subordinate", LDAP_SCOPE_CHILDREN },
    };
    // clang-format on
    for (auto const& [name, scope] : scopes) {
        if (strcasecmp(text.c_str(), name) == 0) {
            return scope;
        }
    }
    refuse(fmt::format("unsupported value '{}'", oneLine(text)),
           "choose one of base, one, sub, children");
}

unsigned int limitIn(std::string const& text)
{
    if (text == "none") {
        return 0;
    }
    return text == "max" ? largestLimit : numberIn(text, 0, largestLimit);
}

unsigned int pageSizeIn(std::string const& text) { return numberIn(text, 1, largestLimit); }

/// The filter, which OpenLDAP would else refuse after the connection is open, without saying where.
void requireSound(std::string const& filter)
{
    try {
        LDAPFilter::parse(filter);
    } catch (LDAPException const& fault) {
        throw Failure(
            Outcome::badInput,
            fmt::format("invalid filter '{}': {}", oneLine(filter), fault.stringParameter()),
            "correct the filter");
    }
}

// Results

/// Writes what a search finds.
class SearchOutput {
public:
    SearchOutput(CommonOptions const& common, std::unique_ptr<RecordWriter> writer, bool onlyCounts,
                 Output& output, Diagnostics& diagnostics)
        : m_common(common), m_writer(std::move(writer)), m_onlyCounts(onlyCounts), m_output(output),
          m_diagnostics(diagnostics), m_progress(diagnostics, std::nullopt),
          m_start(std::chrono::steady_clock::now())
    {
        m_pending = onlyCounts ? "" : m_writer->opening();
    }

    void take(SearchRun const& search, SearchRun::Item item);
    void flush();
    /// Writes the number of entries, if that is what was asked for.
    void writeCount();
    void printStatistics();

    unsigned long entries() const { return m_entries; }
    unsigned long references() const { return m_references; }
    /// Whether references were not written.
    bool hidesReferences() const
    {
        return m_references != 0 && (m_onlyCounts || !m_writer->writesReferences());
    }

private:
    CommonOptions const& m_common;
    std::unique_ptr<RecordWriter> m_writer;
    bool m_onlyCounts;
    Output& m_output;
    Diagnostics& m_diagnostics;
    Progress m_progress;
    std::chrono::steady_clock::time_point m_start;
    std::string m_pending; ///< not written yet
    unsigned long m_entries = 0;
    unsigned long m_references = 0;
};

void SearchOutput::take(SearchRun const& search, SearchRun::Item item)
{
    constexpr std::size_t large = 65536;
    ++(item == SearchRun::Item::entry ? m_entries : m_references);
    if (!m_onlyCounts && item == SearchRun::Item::entry) {
        m_writer->writeEntry(search.entry(), m_pending);
    } else if (!m_onlyCounts) {
        m_writer->writeReference(search.references(), m_pending);
    }
    if (m_pending.size() >= large) {
        flush();
    }
    m_progress.update(m_entries + m_references);
}

void SearchOutput::flush()
{
    if (!m_pending.empty()) {
        m_output.write(m_pending);
        m_pending.clear();
    }
}

void SearchOutput::writeCount()
{
    if (!m_onlyCounts) {
        return;
    }
    if (m_common.format() == "json") {
        Json json(m_pending);
        json->StartObject();
        json.key("entries")->Uint64(m_entries);
        json.key("references")->Uint64(m_references);
        json->EndObject();
    } else {
        m_pending = std::to_string(m_entries);
    }
    m_pending += m_common.recordEnd();
    flush();
}

void SearchOutput::printStatistics()
{
    m_progress.finish();
    std::chrono::duration<double> const taken = std::chrono::steady_clock::now() - m_start;
    double const rate = static_cast<double>(m_entries) / std::max(taken.count(), 1e-6);
    if (m_common.stats() == Stats::json) {
        std::string text;
        Json json(text);
        json->StartObject();
        json.key("entries")->Uint64(m_entries);
        json.key("references")->Uint64(m_references);
        json.key("seconds")->Double(taken.count());
        json.key("entries_per_second")->Double(rate);
        json->EndObject();
        m_diagnostics.plain(text);
    } else if (m_common.stats() == Stats::text) {
        m_diagnostics.plain(fmt::format("{} entries, {} references, {:.2f} s, {:.0f} entries/s",
                                        m_entries, m_references, taken.count(), rate));
    }
}

// The end

std::string counted(unsigned long number, char const* one, char const* several)
{
    return fmt::format("{} {}", number, number == 1 ? one : several);
}

/// A control that the server lacks does not come by itself: unlike other unknown codes, this one is not
/// temporary.
Outcome outcomeOfEnd(Lookup::Verdict const& verdict)
{
    return verdict.code == LDAP_UNAVAILABLE_CRITICAL_EXTENSION ? Outcome::refused
                                                               : outcomeOf(verdict);
}

std::string remedyForEnd(Lookup::Verdict const& verdict, SearchQuery const& query,
                         unsigned long entries)
{
    char const* const narrower = query.pageSize == 0
                                     ? "narrow the filter or fetch pages (--page-size)"
                                     : "narrow the filter";
    switch (verdict.code) {
    case LDAP_SIZELIMIT_EXCEEDED:
        return query.sizeLimit != 0 && entries >= query.sizeLimit ? "raise -z or narrow the filter"
                                                                  : narrower;
    case LDAP_TIMELIMIT_EXCEEDED:
        return query.timeLimit != 0 ? "narrow the filter or raise -l" : narrower;
    case LDAP_ADMINLIMIT_EXCEEDED:
        return narrower;
    case LDAP_TIMEOUT: // --deadline limits connecting only
        return "try again later or raise -o nettimeout";
    case LDAP_PROTOCOL_ERROR:
        if (query.scope == LDAP_SCOPE_CHILDREN) {
            return "choose another scope: the server may lack the scope children";
        }
        return remedyFor(verdict);
    case LDAP_UNAVAILABLE_CRITICAL_EXTENSION:
        return "leave out what the server does not support: --page-size, --sort or -MM";
    case LDAP_NO_SUCH_ATTRIBUTE:
    case LDAP_INAPPROPRIATE_MATCHING:
        if (query.sorts) {
            return "correct the keys of --sort; one without an ordering rule needs it named, as in "
                   "cn:caseIgnoreOrderingMatch";
        }
        return "correct the filter";
    case LDAP_FILTER_ERROR:
    case LDAP_UNDEFINED_TYPE:
    case LDAP_CONSTRAINT_VIOLATION:
    case LDAP_INVALID_SYNTAX:
        return "correct the filter";
    default:
        return remedyFor(verdict);
    }
}

/// How a search ended.
struct Ending {
    Lookup::Verdict verdict;
    int signal = 0; ///< that interrupted it; 0: none
    bool isUnsorted = false;

    bool isWhole() const { return signal == 0 && verdict.isGood(); }
};

/// Searches until the end, and closes the session.
Ending stream(std::unique_ptr<Lookup::Session> session, SearchQuery const& query,
              std::chrono::milliseconds silence, SearchOutput& results)
{
    Interruption const interruption;
    SearchRun search(*session, query, silence, [&] { results.flush(); });
    for (auto item = search.next(); item != SearchRun::Item::end; item = search.next()) {
        results.take(search, item);
    }
    results.flush();
    return {search.verdict(), Interruption::signal(), search.sortResult().code != LDAP_SUCCESS};
}

/// Says why a search ended early. Does not return after a signal: the shell learns of it by a second one.
Outcome outcomeOfPart(Ending const& ending, SearchQuery const& query, unsigned long entries,
                      Diagnostics const& diagnostics)
{
    std::string const soFar = counted(entries, "entry", "entries");
    if (ending.signal != 0) {
        diagnostics.error(fmt::format("interrupted after {}; the result is incomplete", soFar));
        std::raise(ending.signal);
        return Outcome::tryLater;
    }
    diagnostics.error(fmt::format("{}, after {}; {}", ending.verdict.text, soFar,
                                  remedyForEnd(ending.verdict, query, entries)));
    return outcomeOfEnd(ending.verdict);
}

/// Tells of references that nothing else shows.
Outcome outcomeOfWhole(SearchOutput const& results, bool ignoresReferences,
                       Diagnostics const& diagnostics)
{
    bool const hasOnlyReferences =
        results.references() != 0 && results.entries() == 0 && !ignoresReferences;
    if (hasOnlyReferences || (results.hidesReferences() && !ignoresReferences)) {
        diagnostics.error(fmt::format(
            "{} to other servers not followed; ask these servers (-H), or see referral entries "
            "with -M",
            counted(results.references(), "reference", "references")));
    }
    if (results.entries() != 0) {
        return Outcome::found;
    }
    return hasOnlyReferences ? Outcome::refused : Outcome::notFound;
}

/// @param isOption  the base is that of the command line
std::string baseOf(Draft const& draft, bool isOption)
{
    if (isOption) {
        return draft.lookup.base;
    }
    auto const base = Lookup::baseOfAllKeys(draft.lookup);
    if (!base) {
        refuse("the search base of the settings file is made from each address", "add -b BASE");
    }
    return *base;
}

} // namespace

void SearchCommand::declareOn(OptionList& options)
{
    for (char const* const name : {"search_base", "dereference"}) {
        Setting const& setting = *settingOfFile(name);
        m_settings.declareOn(options, setting, setting.help);
    }
    options.value("-s,--scope", m_scope, searchScopeIn, "base|one|sub|children", "Search scope")
        .showsDefault("sub");
    m_settings.declareOn(options, *settingOfFile("references"),
                         "Exit status of a search that finds only references: 69, or 1 as without "
                         "them");
    options.value("-z,--size-limit", m_sizeLimit, limitIn, "N|none|max",
                  "Maximum number of entries; default: no limit");
    options.value("-l,--time-limit", m_timeLimit, limitIn, "S|none|max",
                  "Time limit on the server in seconds; default: no limit");
    options.value("--page-size", m_pageSize, pageSizeIn, "N",
                  "Fetch pages of so many entries (RFC 2696)");
    options.value("--sort", m_sortKeys, sortKeysIn, "KEYS",
                  "Have the server sort (RFC 2891) by [-]ATTRIBUTE[:RULE], separated by commas; -: "
                  "descending");
    options.values(
        "-E", [this](std::string const& text) { takeExtension(text); }, "[!]EXTENSION",
        "As ldapsearch: pr=N is --page-size N, sss=KEYS is --sort KEYS, subentries[=true|false] "
        "returns only subentries (RFC 3672), or none");
    options.flag("-M,--manage-dsa-it", m_manages,
                 "Return referral entries themselves (RFC 3296); -MM: required");
    options.flag("-A,--types-only", m_isTypesOnly, "Return attributes without their values");
    options.flag("--count", m_onlyCounts, "Print only the number of entries");
    options.flag("-L", m_ldifLeaves,
                 "Format ldif; -L and -LL: with the version, -LLL: without, as --format ldif");
    m_arguments = options.arguments("FILTER", "Filter, default (objectClass=*), and attributes");
    options.footer(footer);
}

/// Takes an extension in the form of ldapsearch. Those of pages and subentries are always critical; a "!"
/// changes nothing, also for the sort, which the server then says that it did not do.
void SearchCommand::takeExtension(std::string const& text)
{
    std::string_view const rest = std::string_view(text).substr(text.rfind('!', 0) == 0 ? 1 : 0);
    std::string const name(rest.substr(0, rest.find('=')));
    std::string value(rest.substr(std::min(name.size() + 1, rest.size())));
    explainedBy("-E " + name, Outcome::usage, [&] {
        if (name == "pr") { // a prompt would end the stream
            m_pageSize = pageSizeIn(value.substr(0, value.find('/')));
        } else if (name == "sss") {
            std::replace(value.begin(), value.end(), '/', ',');
            m_sortKeys = sortKeysIn(value);
        } else if (name == "subentries" && (value.empty() || value == "true" || value == "false")) {
            m_subentries = value != "false";
        } else {
            refuse(fmt::format("unsupported extension '{}'", oneLine(text)),
                   "choose one of pr=N, sss=KEYS, subentries, subentries=false");
        }
    });
}

/// @throws Failure  "badInput": the filter is invalid; "usage": an attribute is, or there is no base
SearchQuery SearchCommand::query(Draft& draft) const
{
    SearchQuery query;
    takeArguments(query);
    requireBase(draft);
    query.base = baseOf(draft, m_settings.has("search_base"));
    query.scope = m_scope.value_or(LDAPSearchAdapter::fromScope(draft.lookup.scope));
    query.deref = LDAPSearchAdapter::fromDeref(draft.lookup.deref);
    query.isTypesOnly = m_isTypesOnly;
    query.sizeLimit = m_sizeLimit.value_or(0);
    query.timeLimit = m_timeLimit.value_or(0);
    // The server should ignore pages of the limit's size (RFC 2696 section 3).
    bool const fitsPage = query.sizeLimit != 0 && m_pageSize.value_or(0) >= query.sizeLimit;
    query.pageSize = fitsPage ? 0 : m_pageSize.value_or(0);
    if (m_sortKeys) {
        query.controls.push_back(LDAPControls::sort(*m_sortKeys));
        query.sorts = true;
    }
    if (m_subentries) {
        query.controls.push_back(LDAPControls::subentries(*m_subentries));
    }
    if (m_manages != 0) {
        query.controls.push_back(LDAPControls::manageDsaIT(m_manages > 1));
    }
    if (m_onlyCounts) {
        query.attributes = {LDAP_NO_ATTRS};
    }
    return query;
}

/// A filter, unless the first argument is an attribute; and attributes.
void SearchCommand::takeArguments(SearchQuery& query) const
{
    query.filter = "(objectClass=*)";
    auto const& arguments = m_arguments.texts();
    auto first = arguments.begin();
    if (first != arguments.end() && first->find('=') != std::string::npos) {
        query.filter = *first++;
        requireSound(query.filter);
    }
    std::for_each(first, arguments.end(), [&](std::string const& argument) {
        if (!argument.empty() && argument.front() == '(') {
            throw Failure(Outcome::badInput, fmt::format("invalid filter '{}'", oneLine(argument)),
                          "give one filter, before the attributes");
        }
        for (std::string const& name : attributesIn(argument)) {
            query.attributes.push_back(name);
        }
    });
}

std::unique_ptr<RecordWriter> SearchCommand::writer(CommonOptions const& common,
                                                    Draft const& draft) const
{
    if (m_ldifLeaves != 0 && common.format() != "text" && common.format() != "ldif") {
        refuse(fmt::format("-L and --format {} contradict each other", common.format()),
               "remove one of them");
    }
    if (m_ldifLeaves != 0 || common.format() == "ldif") {
        return makeLdifWriter(common.recordEnd(), m_ldifLeaves == 0 ? 3 : m_ldifLeaves,
                              draft.ldifWidth);
    }
    return makeRecordWriter(common.format(), common.recordEnd());
}

int SearchCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    Draft draft = common.draft();
    m_settings.applyTo(draft);
    SearchQuery const query = this->query(draft);
    auto records = writer(common, draft);
    Secret password;
    LDAPLookup::Settings settings = common.settings(draft, password);
    auto const tls = std::make_shared<Lookup::TlsContext>(settings.tls);
    auto const lastStep = settings.isAnonymous() ? Lookup::Step::bind : Lookup::Step::identify;
    auto session = openFirst(settings, tls, lastStep, diagnostics);
    wipe(settings.password);
    diagnostics.note(fmt::format("searching {}", session->uri()));

    SearchOutput results(common, std::move(records), m_onlyCounts, output, diagnostics);
    Ending const ending =
        stream(std::move(session), query, std::chrono::seconds(settings.networkTimeout), results);
    if (ending.isWhole()) {
        results.writeCount();
    }
    results.printStatistics();
    if (!ending.isWhole()) {
        return exitStatusOf(outcomeOfPart(ending, query, results.entries(), diagnostics));
    }
    if (ending.isUnsorted) {
        diagnostics.error("warning: the server did not sort the entries; leave --sort out");
    }
    bool const ignoresReferences = draft.lookup.references == Lookup::References::ignore;
    return exitStatusOf(outcomeOfWhole(results, ignoresReferences, diagnostics));
}

} // namespace Solvane::Tool
