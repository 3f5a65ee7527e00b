// The "apply" command: its options, the order of its steps, and its output.
#include "Commands.h"

#include "Change.h"
#include "Json.h"
#include "Ldif.h"
#include "OpenLDAP.h"
#include "OptionList.h"
#include "Outcome.h"
#include "Progress.h"
#include "SearchRun.h"
#include "Secret.h"
#include "Sessions.h"
#include "Text.h"
#include "Undo.h"
#include "UndoFile.h"

#include <solvane/ldap/LDAPControls.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <exception>
#include <functional>

#include <poll.h>

namespace Solvane::Tool {

namespace {

using Lookup::Session;
using Record = LDAPLdifRecord;
using Status = ChangeResult::Status;

constexpr char footer[] =
    "Records are changes of type add, delete, modify, modrdn or moddn, with their controls; a\n"
    "record without changetype is an entry to add. They are sent one after the other. Each gets\n"
    "one line: added DN, deleted DN, modified DN, renamed DN to RDN, refused CODE DN: TEXT, or\n"
    "unknown DN: TEXT if no answer came; such a change may have been made, and is not sent "
    "again.\n\n"
    "-n contacts no server. It checks the syntax of the LDIF, but not DNs, attributes, values,\n"
    "the schema, permissions, or whether the entries exist.\n\n"
    "The file of --pre-read undoes the run: 'solvane-ldap apply FILE'. It restores what the "
    "records\n"
    "change and the bind can read, but nothing that only the server may change. If the run is\n"
    "killed, the file undoes the changes whose responses had come.\n\n"
    "Exit status, the worst of all records:\n"
    "   0  applied\n"
    "  64  usage error\n"
    "  65  invalid LDIF, or a change that does not suit the entry or the schema\n"
    "  69  refused permanently, unsupported, or referred to another server\n"
    "  73  already exists\n"
    "  74  cannot write to standard output or the file of --pre-read\n"
    "  75  try later: server down, no answer in time, busy\n"
    "  77  credentials, access or certificate refused, or a value that cannot be read to undo\n"
    "  78  parent entry missing, or an unusable file or password\n"
    "Precedence, worst first: 74, 64, 78, 77, 75, 69, 65, 73, 0.";

/// What a type of record does.
struct Words {
    char const* verb;
    char const* participle;
};
constexpr std::array<Words, 5> words = {{{"add", "added"},
                                         {"add", "added"},
                                         {"delete", "deleted"},
                                         {"modify", "modified"},
                                         {"rename", "renamed"}}}; // in the order of Record::Type

Words const& wordsOf(Record::Type type) { return words[static_cast<std::size_t>(type)]; }

constexpr std::array<char const*, 3> statusNames = {"applied", "refused", "unknown"};

/// " to RDN" and a new parent of a rename; empty for other records.
std::string targetOf(Record const& record)
{
    if (record.type != Record::Type::Rename) {
        return {};
    }
    return " to " + oneLine(record.newRdn) +
           (record.newSuperior ? " below " + oneLine(*record.newSuperior) : std::string());
}

/// The same as members of an object.
void writeTarget(Record const& record, Json& json)
{
    if (record.type == Record::Type::Rename) {
        json.key("newrdn").value(record.newRdn);
        if (record.newSuperior) {
            json.key("newsuperior").value(*record.newSuperior);
        }
    }
}

Outcome outcomeOfChange(Record::Type type, int code)
{
    bool const isAdd = type == Record::Type::Content || type == Record::Type::Add;
    switch (code) {
    case LDAP_NO_SUCH_OBJECT:
        return isAdd ? outcomeOfAdd(code) : Outcome::badInput;
    case LDAP_ASSERTION_FAILED:
    case LDAP_UNAVAILABLE_CRITICAL_EXTENSION:
        return Outcome::refused;
    case LDAP_PROXIED_AUTHORIZATION_DENIED:
    case LDAP_X_PROXY_AUTHZ_FAILURE: // the same, of older servers
        return Outcome::denied;
    default:
        return outcomeOfAdd(code);
    }
}

char const* remedyForChange(Record::Type type, int code)
{
    switch (code) {
    case LDAP_NO_SUCH_OBJECT:
        return type == Record::Type::Add || type == Record::Type::Content
                   ? remedyForAdd(code)
                   : "correct the DN, or newsuperior";
    case LDAP_NO_SUCH_ATTRIBUTE:
    case LDAP_TYPE_OR_VALUE_EXISTS:
        return "compare the record with the entry";
    case LDAP_NOT_ALLOWED_ON_NONLEAF:
        return "delete the entries below it first";
    case LDAP_ASSERTION_FAILED:
        return "the entry is not as the record expects; nothing was changed";
    case LDAP_UNAVAILABLE_CRITICAL_EXTENSION:
        return "the server does not support a critical control of the record";
    case LDAP_PROXIED_AUTHORIZATION_DENIED:
    case LDAP_X_PROXY_AUTHZ_FAILURE:
        return "bind with a DN that may act as this user (-D)";
    default:
        return remedyForAdd(code);
    }
}

/// The result for one record.
struct Report {
    Record const* record = nullptr;
    Status status = Status::refused;
    int code = 0;
    std::string text;
    std::string remedy;           ///< empty: the remedy follows from the code
    std::string server;           ///< URI; empty if nothing was sent
    std::string withoutUndo;      ///< why the change, which was made, cannot be undone
    bool isUndoUnwritten = false; ///< the change was made, and the file of the undo is at its end
    bool isRead = true;           ///< else of the record only the DN and the line are known
};

// Output

/// Prints the reports and counts them.
class Reporter {
public:
    Reporter(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
        : m_common(common), m_output(output), m_diagnostics(diagnostics),
          m_progress(diagnostics, std::nullopt), m_start(std::chrono::steady_clock::now())
    {
    }

    void take(Report const& report);
    /// An invalid record.
    void take(LdifFault const& fault);
    /// Tells where the run ended before the end of its input.
    void printStop();
    void printFigures();
    Outcome worst() const { return m_worst; }

private:
    void print(Report const& report);
    void complain(Report const& report) const;

    CommonOptions const& m_common;
    Output& m_output;
    Diagnostics& m_diagnostics;
    Progress m_progress;
    std::chrono::steady_clock::time_point m_start;
    std::array<unsigned long, statusNames.size()> m_counts{};
    unsigned long m_total = 0;
    unsigned long m_lastLine = 0; ///< of the last record
    Outcome m_worst = Outcome::found;
};

void Reporter::take(Report const& report)
{
    ++m_counts[static_cast<std::size_t>(report.status)];
    m_lastLine = report.record->line;
    m_worst = worse(m_worst, report.status == Status::unknown
                                 ? Outcome::tryLater
                                 : outcomeOfChange(report.record->type, report.code));
    if (!report.withoutUndo.empty()) {
        m_worst = worse(m_worst, Outcome::denied);
    }
    complain(report);
    print(report);
    m_progress.update(++m_total);
}

void Reporter::take(LdifFault const& fault)
{
    ++m_counts[static_cast<std::size_t>(Status::refused)];
    m_lastLine = fault.entry().line;
    m_worst = worse(m_worst, fault.outcome());
    m_diagnostics.error(fault.what());
    if (!fault.entry().dn.empty()) {
        Record record;
        record.dn = fault.entry().dn;
        record.line = fault.entry().line;
        Report report;
        report.record = &record;
        report.code = LDAP_PARAM_ERROR;
        report.text = fault.cause();
        report.isRead = false;
        print(report);
    }
    m_progress.update(++m_total);
}

void Reporter::print(Report const& report)
{
    Record const& record = *report.record;
    std::string line;
    if (m_common.format() == "json") {
        Json json(line);
        json->StartObject();
        json.key("dn").value(record.dn);
        if (report.isRead) {
            json.key("change").string(wordsOf(record.type).verb);
            writeTarget(record, json);
        }
        json.key("status").string(statusNames[static_cast<std::size_t>(report.status)]);
        json.key("line")->Uint64(record.line);
        json.key("code")->Int(report.code);
        json.key("text").string(report.isUndoUnwritten       ? "its undo could not be written"
                                : report.withoutUndo.empty() ? report.text
                                                             : report.withoutUndo);
        json.key("server").string(report.server);
        json->EndObject();
    } else {
        std::string const dn = oneLine(record.dn);
        line = report.status == Status::applied
                   ? fmt::format("{} {}{}", wordsOf(record.type).participle, dn, targetOf(record))
               : report.status == Status::refused
                   ? fmt::format("refused {} {}: {}", report.code, dn, report.text)
                   : fmt::format("unknown {}: {}", dn, report.text);
    }
    m_output.write(line + m_common.recordEnd());
}

void Reporter::complain(Report const& report) const
{
    std::string const dn = oneLine(report.record->dn);
    if (report.isUndoUnwritten) {
        m_diagnostics.error(
            fmt::format(report.status == Status::applied
                            ? "{}: the change was made, but its undo could not be written"
                            : "{}: that it may have been made could not be written to the undo",
                        dn));
    }
    if (!report.withoutUndo.empty()) {
        m_diagnostics.error(fmt::format("{}: the change was made, but cannot be undone: {}; bind "
                                        "with a DN that may read what it changes (-D)",
                                        dn, report.withoutUndo));
    }
    if (report.status == Status::refused) {
        m_diagnostics.error(fmt::format("{}: {} ({}); {}", dn, report.text, report.code,
                                        report.remedy.empty()
                                            ? remedyForChange(report.record->type, report.code)
                                            : report.remedy));
    } else if (report.status == Status::unknown) {
        m_diagnostics.error(fmt::format("{}: {}; check whether the change was made before you "
                                        "apply it again",
                                        dn, report.text));
    }
}

void Reporter::printStop()
{
    if (m_total != 0 || m_lastLine != 0) {
        m_diagnostics.error(fmt::format(
            "the run ended after the record at line {}: {} applied, {} refused, {} unknown; no "
            "record after it was tried",
            m_lastLine, m_counts[0], m_counts[1], m_counts[2]));
    }
}

void Reporter::printFigures()
{
    m_progress.finish();
    printCounts(m_diagnostics, m_common.stats(),
                {{statusNames[0], "applied", m_counts[0]},
                 {statusNames[1], "refused", m_counts[1]},
                 {statusNames[2], "unknown", m_counts[2]}},
                m_start);
}

// The run

/// Defers the signals that end the tool: between a change and its undo, none may.
class SignalHold {
public:
    SignalHold()
    {
        sigset_t held;
        sigemptyset(&held);
        for (int const signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
            sigaddset(&held, signal);
        }
        pthread_sigmask(SIG_BLOCK, &held, &m_before);
    }
    ~SignalHold() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalHold(SignalHold const&) = delete;
    SignalHold& operator=(SignalHold const&) = delete;

private:
    sigset_t m_before{};
};

/// Sends changes over one connection at a time, each after the answer to the one before.
class ApplyRun {
public:
    using Connect = std::function<std::unique_ptr<Session>()>;

    /// @param undo  receives what undoes the changes; may be null
    ApplyRun(LDAPLookup::Settings const& settings, Connect connect, UndoFile* undo,
             Reporter& reporter)
        : m_settings(settings), m_connect(std::move(connect)), m_undo(undo), m_reporter(reporter)
    {
    }

    /// Sends a change, keeps its undo, and reports it.
    /// @throws Failure  no server can be reached; none can undo; or the undo cannot be written
    void apply(Record const& record);

private:
    void connect();
    void requireUndo();
    bool refuses(Record const& record, std::list<LDAPOperation::Control>& controls);
    std::string keepUndo(Record const& record, ChangeResult const& result);
    std::vector<std::string> readRoot(char const* attribute);

    LDAPLookup::Settings const& m_settings;
    Connect m_connect;
    UndoFile* m_undo;
    Reporter& m_reporter;
    std::unique_ptr<Session> m_session;
    LDAPSchema m_schema; ///< of its server; read only for an undo
};

void ApplyRun::apply(Record const& record)
{
    connect();
    if (Interruption::signal() != 0) { // nothing is sent after it
        return;
    }
    std::list<LDAPOperation::Control> controls;
    if (m_undo != nullptr && refuses(record, controls)) {
        return;
    }
    Report report;
    report.record = &record;
    report.server = m_session->uri();
    std::exception_ptr failure;
    {
        SignalHold const hold;
        ChangeResult const result = sendChange(*m_session, record, controls, m_settings);
        report.status = result.status;
        report.code = result.code;
        report.text = result.text;
        try {
            report.withoutUndo = m_undo != nullptr ? keepUndo(record, result) : std::string();
        } catch (Failure const&) {
            failure = std::current_exception();
            report.isUndoUnwritten = true;
        }
    }
    if (report.status == Status::unknown) {
        m_session.reset();
    }
    m_reporter.take(report);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

/// Ensures a usable connection: the server may have closed an idle one. Nothing is in flight, so
/// replacing it loses nothing.
void ApplyRun::connect()
{
    if (m_session && !m_session->isFresh()) {
        m_session.reset();
    }
    if (!m_session) {
        m_session = m_connect();
        if (m_undo != nullptr) {
            requireUndo();
        }
    }
}

std::vector<std::string> ApplyRun::readRoot(char const* attribute)
{
    Lookup::SearchRequest request;
    request.scope = LDAP_SCOPE_BASE;
    request.attributes = {attribute};
    SearchEnd const end = searchOn(*m_session, request, "(objectClass=*)",
                                   std::chrono::seconds(m_settings.networkTimeout),
                                   Lookup::Clock::now() + m_settings.deadline);
    if (!end.verdict.isGood()) {
        throw Failure(outcomeOf(end.verdict), end.verdict.text, remedyFor(end.verdict),
                      end.verdict.code);
    }
    return end.entries.empty() ? std::vector<std::string>()
                               : valuesOf(end.entries.front(), attribute);
}

/// Reads what an undo needs of the server.
/// @throws Failure  the server cannot show entries before and after a change, or does not show its schema
void ApplyRun::requireUndo()
{
    std::vector<std::string> const supported = readRoot("supportedControl");
    for (char const* const oid : {LDAP_CONTROL_PRE_READ, LDAP_CONTROL_POST_READ}) {
        if (std::find(supported.begin(), supported.end(), oid) == supported.end()) {
            throw Failure(Outcome::refused,
                          fmt::format("{} does not support the pre-read and post-read controls "
                                      "(RFC 4527)",
                                      m_session->uri()),
                          "without --pre-read, the changes can be made but not undone");
        }
    }
    m_schema = schemaOf(*m_session, std::chrono::seconds(m_settings.networkTimeout),
                        Lookup::Clock::now() + m_settings.deadline);
    if (m_schema.attributeTypes().empty()) {
        throw Failure(
            Outcome::denied,
            fmt::format("cannot read the schema of {}, which --pre-read needs", m_session->uri()),
            "bind with a DN that may read it (-D)");
    }
}

/// Refuses a change that cannot be undone, before it is sent.
/// @param controls  receives those that the undo needs
bool ApplyRun::refuses(Record const& record, std::list<LDAPOperation::Control>& controls)
{
    Report report;
    report.record = &record;
    if (Record::Control const* const control = controlWithoutUndo(record)) {
        report.code = LDAP_PARAM_ERROR;
        report.text = fmt::format("a change with the control {} cannot be undone", control->oid);
        report.remedy = "apply the record without --pre-read";
    } else {
        try {
            controls = controlsForUndo(record);
            return false;
        } catch (Failure const& failure) {
            report.code = LDAP_INVALID_DN_SYNTAX;
            report.text = failure.cause();
            report.remedy = failure.remedy();
        }
    }
    m_reporter.take(report);
    return true;
}

/// Writes what undoes the change.
/// @return why a change that was made cannot be undone, or not in every attribute
/// @throws Failure  "output failed"
std::string ApplyRun::keepUndo(Record const& record, ChangeResult const& result)
{
    std::string const what =
        fmt::format("line {}, {} {}", record.line, wordsOf(record.type).verb, oneLine(record.dn));
    if (result.status == Status::refused) {
        return {};
    }
    if (result.status == Status::unknown) {
        m_undo->remark("Not undone, as it is unknown whether it was made: " + what);
        return {};
    }
    std::string why;
    try {
        EntryStates states;
        LDAPSearchResultEntry entry{std::string()};
        if (LDAPControls::preRead(result.controls, entry)) {
            states.before = entry;
        }
        if (LDAPControls::postRead(result.controls, entry)) {
            states.after = entry;
        }
        if (record.type == Record::Type::Content || record.type == Record::Type::Add ||
            states.before) {
            Undo const undo = undoOf(record, states, m_schema);
            m_undo->add(undo.records);
            if (!undo.doubtful.empty()) {
                m_undo->remark(fmt::format("Not known whether there were values before: {}: {}",
                                           what, joined(undo.doubtful, ", ")));
            }
            why = undo.lost.empty()
                      ? ""
                      : fmt::format("the server does not show {}", joined(undo.lost, ", "));
        } else {
            why = "the server does not show the entry before it";
        }
    } catch (LDAPException const&) {
        why = "the server sent an invalid entry";
    }
    if (!why.empty()) {
        m_undo->remark(fmt::format("Not undone, or not as a whole: {}: {}", what, why));
    }
    return why;
}

/// Blocks until there is input or a signal.
bool awaitInput(int descriptor)
{
    std::array<pollfd, 2> waits = {
        {{descriptor, POLLIN, 0}, {Interruption::descriptor(), POLLIN, 0}}};
    poll(waits.data(), waits.size(), -1);
    return Interruption::signal() == 0;
}

/// Applies all records, or up to the first failure or a signal.
/// @return whether the input was read to its end
bool applyAll(LdifReader& reader, ApplyRun& run, Reporter& reporter, bool goesOn)
{
    while (Interruption::signal() == 0 && (goesOn || reporter.worst() == Outcome::found)) {
        Record record;
        try {
            if (!reader.next(record, awaitInput)) {
                return Interruption::signal() == 0;
            }
            run.apply(record);
        } catch (LdifFault const& fault) {
            reporter.take(fault);
        }
    }
    return false;
}

/// The same; tells where and why it ended before its end, and finishes the undo whatever happens.
/// Does not return after a signal: the shell learns of it by a second one.
Outcome runAll(LdifReader& reader, ApplyRun& run, Reporter& reporter, bool goesOn,
               std::optional<UndoFile>& undo, Diagnostics const& diagnostics)
{
    std::optional<Interruption> interruption(std::in_place);
    Outcome worst = Outcome::found;
    bool isWhole = false;
    std::exception_ptr other; // as a closed pipe
    try {
        isWhole = applyAll(reader, run, reporter, goesOn);
    } catch (Failure const& failure) {
        diagnostics.error(failure.what());
        worst = failure.outcome();
    } catch (...) {
        other = std::current_exception();
    }
    if (!isWhole) {
        reporter.printStop();
    }
    try {
        if (undo) {
            SignalHold const hold;
            undo->finish();
        }
    } catch (Failure const& failure) {
        diagnostics.error(failure.what());
        diagnostics.error("the undo is still a journal; only 'solvane-ldap apply' can apply it");
        worst = worse(worst, failure.outcome());
    }
    int const signal = Interruption::signal();
    interruption.reset();
    if (other) {
        std::rethrow_exception(other);
    }
    if (signal != 0) {
        reporter.printFigures();
        undo.reset();
        std::raise(signal);
    }
    return worse(worst, reporter.worst());
}

/// The file of the changes; of a journal, a copy from its end.
struct Input {
    Input(std::string const& file, Diagnostics const& diagnostics)
        : journal(journalReversed(file == "-" ? "/dev/stdin" : file)),
          reader(journal ? fmt::format("/dev/fd/{}", journal->get()) : file, file)
    {
        if (journal) {
            diagnostics.note(
                "the file is the journal of a killed run; its last change is undone first");
        }
    }

    std::unique_ptr<Descriptor> journal;
    LdifReader reader;
};

} // namespace

void ApplyCommand::declareOn(OptionList& options)
{
    auto const file = options.value("FILE", m_file, "", "LDIF file; default: standard input");
    options.value("-f,--file", m_file, "FILE", "The same, '-' for standard input").excludes(file);
    options.flag("-c,--continue", m_goesOn, "Continue after a failure");
    auto const shows =
        options.flag("-n,--dry-run", m_onlyShows, "Read the records; contact no server");
    options.value("--pre-read", m_undoFile, "FILE", "Write a new file of changes that undo the run")
        .excludes(shows);
    options.footer(footer);
}

int ApplyCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    common.requireTextOrJson(name());
    return exitStatusOf(m_onlyShows ? show(common, output, diagnostics)
                                    : apply(common, output, diagnostics));
}

Outcome ApplyCommand::show(CommonOptions const& common, Output& output,
                           Diagnostics& diagnostics) const
{
    Outcome worst = Outcome::found;
    Input input(m_file, diagnostics);
    while (m_goesOn || worst == Outcome::found) {
        Record record;
        try {
            if (!input.reader.next(record)) {
                break;
            }
        } catch (LdifFault const& fault) {
            diagnostics.error(fault.what());
            worst = fault.outcome();
            continue;
        }
        std::string line;
        if (common.format() == "json") {
            Json json(line);
            json->StartObject();
            json.key("dn").value(record.dn);
            json.key("change").string(wordsOf(record.type).verb);
            writeTarget(record, json);
            json.key("status").string("parsed");
            json.key("line")->Uint64(record.line);
            json->EndObject();
        } else {
            line = fmt::format("would {} {}{}", wordsOf(record.type).verb, oneLine(record.dn),
                               targetOf(record));
        }
        output.write(line + common.recordEnd());
    }
    return worst;
}

Outcome ApplyCommand::apply(CommonOptions const& common, Output& output,
                            Diagnostics& diagnostics) const
{
    if (m_file == "-" && common.readsStandardInput()) {
        throw Failure(Outcome::usage, "changes and password are both read from standard input",
                      "pass one of them another way, as in --password-fd 3 3<FILE");
    }
    Input input(m_file, diagnostics);
    Secret password;
    LDAPLookup::Settings const settings = common.settings(common.draft(), password);
    std::optional<UndoFile> undo;
    if (!m_undoFile.empty()) {
        undo.emplace(m_undoFile);
    }

    auto const tls = std::make_shared<Lookup::TlsContext>(settings.tls);
    auto const lastStep = settings.isAnonymous() ? Lookup::Step::bind : Lookup::Step::identify;
    Reporter reporter(common, output, diagnostics);
    ApplyRun run(
        settings,
        [&] {
            auto session = openFirst(settings, tls, lastStep, diagnostics);
            diagnostics.note(fmt::format("applying to {}", session->uri()));
            return session;
        },
        undo ? &*undo : nullptr, reporter);
    Outcome const worst = runAll(input.reader, run, reporter, m_goesOn, undo, diagnostics);
    reporter.printFigures();
    return worst;
}

} // namespace Solvane::Tool
