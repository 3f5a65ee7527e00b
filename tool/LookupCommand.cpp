// The "lookup" command: its options and exit status; and its run over all keys, which writes records as
// they arrive, and statistics at the end.
#include "Commands.h"

#include "Console.h"
#include "Json.h"
#include "LookupSettings.h"
#include "OptionList.h"
#include "Options.h"
#include "Outcome.h"
#include "Progress.h"
#include "RecordWriter.h"
#include "Text.h"

#include <solvane/lookup/LDAPLookup.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Tool {

namespace {

/// What answers have, and must have.
struct Expected {
    bool isSingle;   ///< more than one entry for a key is an error
    bool hasResults; ///< groups or a format are set
    bool hasValues;  ///< values are asked for
    bool needsValue; ///< found without a value counts as not found
};

/// One run over all keys. Not thread-safe.
class LookupRun {
public:
    LookupRun(LDAPLookup& lookup, CommonOptions const& common, std::unique_ptr<RecordWriter> writer,
              Expected expected, Output& output, Diagnostics& diagnostics);

    /// Looks up every key and writes one record for each.
    /// @return the worst outcome
    /// @throws Failure     the keys cannot be read, or the output cannot be written
    /// @throws ReaderGone  the reader of standard output is gone
    Outcome over(KeyOptions& keys);
    /// Whether servers answered for some addresses, and none of all addresses was found.
    bool foundNothing() const { return m_counts.notFound > 0 && m_counts.found == 0; }
    /// Prints the statistics of --stats on standard error.
    void printStatistics(Stats form) const;

private:
    /// The counts shown by `--stats`.
    struct Counts {
        unsigned long keys = 0;
        unsigned long found = 0;
        unsigned long notFound = 0;
        unsigned long skipped = 0;
        unsigned long errors = 0;
    };

    void take(Record const& record, Progress& progress);
    void count(Record const& record);
    void complain(Record const& record);
    void endComplaint();
    void flush();
    double percentile(double part) const;

    LDAPLookup& m_lookup;
    Expected m_expected;
    bool m_countsTimes;
    Output& m_output;
    Diagnostics& m_diagnostics;
    std::unique_ptr<RecordWriter> m_writer;
    std::string m_pending;     ///< records not written yet
    bool m_hasMoreKeys = true; ///< without waiting: records may be written together
    Outcome m_worst = Outcome::found;
    Counts m_counts;
    std::string m_complaint;                   ///< the last error printed
    unsigned long m_unspoken = 0;              ///< later keys with the same error
    mutable std::vector<float> m_milliseconds; ///< of every key; only with --stats
    std::chrono::steady_clock::time_point m_start;
};

/// Makes several entries an error (--single).
void refuseSeveral(Record& record)
{
    Lookup::Answer& answer = record.answer;
    record.hasTooManyEntries =
        answer.outcome == Lookup::Outcome::Found && answer.entries.size() > 1;
    if (record.hasTooManyEntries) {
        answer.text = fmt::format("{} entries found, --single allows one", answer.entries.size());
    }
}

/// Whether an answer has entries and none of the values that were asked for.
bool isWithoutValue(Lookup::Answer const& answer, Expected const& expected)
{
    if (answer.outcome != Lookup::Outcome::Found || !expected.hasValues) {
        return false;
    }
    if (expected.hasResults) {
        return answer.results.empty();
    }
    return std::all_of(answer.entries.begin(), answer.entries.end(), [](auto const& entry) {
        auto const& attributes = entry.attributes().attributes();
        return std::all_of(attributes.begin(), attributes.end(),
                           [](auto const& attribute) { return attribute.binaryValue().empty(); });
    });
}

LookupRun::LookupRun(LDAPLookup& lookup, CommonOptions const& common,
                     std::unique_ptr<RecordWriter> writer, Expected expected, Output& output,
                     Diagnostics& diagnostics)
    : m_lookup(lookup), m_expected(expected), m_countsTimes(common.stats() != Stats::none),
      m_output(output), m_diagnostics(diagnostics), m_writer(std::move(writer)),
      m_start(std::chrono::steady_clock::now())
{
}

Outcome LookupRun::over(KeyOptions& keys)
{
    Progress progress(m_diagnostics, keys.total());
    m_pending = m_writer->opening();
    Record record;
    auto const source = [&](std::string& key, bool mayWait) {
        flush(); // print the answers before waiting for more keys
        auto const supplied = keys.next(key, mayWait);
        m_hasMoreKeys = supplied == LDAPLookup::Supply::key;
        return supplied;
    };
    auto const sink = [&](std::string const& key, Lookup::Answer&& answer) {
        record.key = key;
        record.answer = std::move(answer);
        if (m_expected.isSingle) {
            refuseSeveral(record);
        }
        record.hasResults = m_expected.hasResults;
        record.isWithoutValue =
            !record.hasTooManyEntries && isWithoutValue(record.answer, m_expected);
        take(record, progress);
        return true;
    };
    if (int const descriptor = keys.descriptor(); descriptor >= 0) {
        m_lookup.findAll(source, descriptor, sink);
    } else {
        m_lookup.findAll(source, sink);
    }
    flush();
    endComplaint();
    return m_worst;
}

void LookupRun::take(Record const& record, Progress& progress)
{
    count(record);
    bool const isMissing = m_expected.needsValue && record.isWithoutValue;
    m_worst = worse(m_worst, isMissing ? Outcome::notFound : outcomeOf(record));
    complain(record);
    m_writer->write(record, m_pending);
    constexpr std::size_t large = 65536;
    if (!m_hasMoreKeys || m_pending.size() >= large) {
        flush();
    }
    progress.update(m_counts.keys);
}

void LookupRun::count(Record const& record)
{
    ++m_counts.keys;
    std::string_view const status = statusOf(record);
    bool const isFound = status == "found" || status == "novalue";
    ++(isFound                ? m_counts.found
       : status == "notfound" ? m_counts.notFound
       : status == "skipped"  ? m_counts.skipped
                              : m_counts.errors);
    if (m_countsTimes) {
        m_milliseconds.push_back(static_cast<float>(record.answer.milliseconds));
    }
}

/// Prints equal errors of consecutive keys once: if a server is down, they are all the same.
void LookupRun::complain(Record const& record)
{
    Lookup::Answer const& answer = record.answer;
    if (statusOf(record) == std::string_view("error")) {
        auto complaint = fmt::format("{}; {}", answer.text, remedyFor(record));
        if (complaint == m_complaint) {
            ++m_unspoken;
            return;
        }
        endComplaint();
        m_diagnostics.error(record.key + ": " + complaint);
        m_complaint = std::move(complaint);
    } else if (m_diagnostics.level() == Diagnostics::Level::verbose) {
        m_diagnostics.note(
            fmt::format("{}: {} by {} in {:.1f} ms: {}{}", record.key, statusOf(record),
                        answer.server.empty() ? "no server" : answer.server, answer.milliseconds,
                        answer.filter, answer.text.empty() ? "" : "; " + answer.text));
    }
}

void LookupRun::endComplaint()
{
    if (m_unspoken != 0) {
        m_diagnostics.error(m_unspoken == 1
                                ? "same error for 1 more key"
                                : fmt::format("same error for {} more keys", m_unspoken));
        m_unspoken = 0;
    }
}

void LookupRun::flush()
{
    if (!m_pending.empty()) {
        m_output.write(m_pending);
        m_pending.clear();
    }
}

/// The time in milliseconds within which this fraction of the keys was answered.
double LookupRun::percentile(double part) const
{
    if (m_milliseconds.empty()) {
        return 0;
    }
    auto const last = static_cast<double>(m_milliseconds.size() - 1);
    auto const position = m_milliseconds.begin() + std::lround(part * last);
    std::nth_element(m_milliseconds.begin(), position, m_milliseconds.end());
    return static_cast<double>(*position);
}

void LookupRun::printStatistics(Stats form) const
{
    if (form == Stats::none) {
        return;
    }
    std::chrono::duration<double> const taken = std::chrono::steady_clock::now() - m_start;
    double const rate = static_cast<double>(m_counts.keys) / std::max(taken.count(), 1e-6);
    LDAPLookup::Statistics const pool = m_lookup.statistics();
    double const p50 = percentile(0.5);
    double const p99 = percentile(0.99);
    if (form == Stats::json) {
        std::string text;
        Json json(text);
        json->StartObject();
        json.key("keys")->Uint64(m_counts.keys);
        json.key("found")->Uint64(m_counts.found);
        json.key("notfound")->Uint64(m_counts.notFound);
        json.key("skipped")->Uint64(m_counts.skipped);
        json.key("errors")->Uint64(m_counts.errors);
        json.key("repeats")->Uint64(pool.repeated);
        json.key("pool_hits")->Uint64(pool.reused);
        json.key("pool_misses")->Uint64(pool.opened);
        json.key("stale")->Uint64(pool.stale);
        json.key("p50_ms")->Double(p50);
        json.key("p99_ms")->Double(p99);
        json.key("seconds")->Double(taken.count());
        json.key("keys_per_second")->Double(rate);
        json->EndObject();
        m_diagnostics.plain(text);
        return;
    }
    m_diagnostics.plain(fmt::format("keys {}: found {}, not found {}, skipped {}, errors {}",
                                    m_counts.keys, m_counts.found, m_counts.notFound,
                                    m_counts.skipped, m_counts.errors));
    m_diagnostics.plain(fmt::format("repeats {}, pool hits {}, pool misses {}, stale {}",
                                    pool.repeated, pool.reused, pool.opened, pool.stale));
    m_diagnostics.plain(fmt::format("p50 {:.2f} ms, p99 {:.2f} ms, {:.2f} s, {:.0f} keys/s", p50,
                                    p99, taken.count(), rate));
}

constexpr char footer[] =
    "Each address gets one record, in the order given: found, found without a value, not\n"
    "found, skipped, or an error. 'Not found' means that a server answered completely to the bound "
    "identity.\n"
    "No option takes a password: other users could see it in the list of processes.\n\n"
    "Exit status, the worst of all addresses:\n"
    "   0  found\n"
    "   1  not found or skipped; --nouser sets another status\n"
    "  64  usage error\n"
    "  65  invalid template, filter or address; more than one entry with --single\n"
    "  69  refused permanently, or referred to another server\n"
    "  74  cannot write to standard output\n"
    "  75  try later: servers down, no answer in time, busy, a limit hit\n"
    "  77  credentials, access or certificate refused\n"
    "  78  base missing, or an unusable setting, file or password\n"
    "Precedence, worst first: 64, 78, 77, 75, 69, 65, 1, 0.";

} // namespace

void LookupCommand::declareOn(OptionList& options)
{
    m_settings.declareOn(options, Setting::Group::search);
    m_settings.declareOn(options, Setting::Group::queryTemplate);
    m_settings.declareOn(options, Setting::Group::results);
    m_settings.declareOn(options, Setting::Group::bulk);
    options.flag("--single", m_isSingle, "More than one entry for an address is an error");
    options.value("--nouser", m_noUser, numberBetween(1, 125), "STATUS",
                  "Exit status instead of 1, for example 67 for mail servers");
    options.flag("--nouser-without-value", m_needsValue,
                 "In the exit status, found without a value counts as not found");
    options.flag("-c,--continue", m_goesOn, "Continue after an error; always on");
    options.flag("-L", m_ldifLeaves,
                 "Format ldif; -LL: without comments, also those for addresses that are not found; "
                 "-LLL: without the version, too");
    m_keys.declareOn(options);
    options.footer(footer);
}

std::unique_ptr<RecordWriter> LookupCommand::writer(CommonOptions const& common,
                                                    Draft const& draft) const
{
    if (m_ldifLeaves == 0 && common.format() != "ldif") {
        return makeRecordWriter(common.format(), common.recordEnd());
    }
    if (common.format() != "text" && common.format() != "ldif") { // text is the default
        throw Failure(Outcome::usage,
                      fmt::format("-L and --format {} contradict each other", common.format()),
                      "remove one of them");
    }
    return makeLdifWriter(common.recordEnd(), std::max(m_ldifLeaves, 1), draft.ldifWidth);
}

int LookupCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    m_keys.check();
    if (m_keys.readsStandardInput() && common.readsStandardInput()) {
        throw Failure(Outcome::usage, "addresses and password are both read from standard input",
                      "pass one of them another way, as in --password-fd 3 3<FILE");
    }
    m_keys.separator(common.recordEnd());
    Secret password;
    Draft const draft = lookupDraft(common, m_settings);
    Lookup::QueryTemplate const queryTemplate = templateOf(draft);
    LDAPLookup::Settings settings = common.settings(draft, password);
    auto const lookup = makeLookup(draft, settings);
    tellDoubts(queryTemplate, diagnostics);
    bool const wantsNone = draft.lookup.attributes == std::vector<std::string>{"1.1"};
    Expected const expected = {m_isSingle, draft.lookup.makesResults(), !wantsNone, m_needsValue};
    LookupRun run(*lookup, common, writer(common, draft), expected, output, diagnostics);
    Outcome const worst = run.over(m_keys);
    run.printStatistics(common.stats());
    if (run.foundNothing() && diagnostics.level() != Diagnostics::Level::quiet) {
        tellDoubts(draft, settings, diagnostics);
    }
    wipe(settings.password);
    if (worst == Outcome::notFound && m_noUser) {
        return static_cast<int>(*m_noUser);
    }
    return exitStatusOf(worst);
}

} // namespace Solvane::Tool
