// The library's operations, one class each.
#include "Operations.h"

#include "Process.h"
#include "TemporaryDirectory.h"

#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>
#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/LDAPLookupQueue.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <system_error>
#include <tuple>

#include <poll.h>
#include <sys/stat.h>

using namespace Solvane;

namespace SolvaneTest {

namespace {

// Failures as words

std::string placeOf(Exception const& fault)
{
    std::ostringstream text;
    text << fault.fileName();
    if (fault.fileName() != "LDAPLookup.cpp") { // whose lines are not fixed
        text << ':' << fault.lineNumber();
    }
    text << " (" << fault.code();
    if (auto const* const known = dynamic_cast<LDAPException const*>(&fault)) {
        text << '/' << known->getType();
    }
    text << ')';
    if (fault.hasCause()) {
        text << " < " << placeOf(fault.cause());
    }
    return text.str();
}

/// "Search.cpp:332" of "LDAPException code 4 at Search.cpp:332: ...".
std::string placeIn(std::string const& text)
{
    constexpr char before[] = " at ";
    std::string::size_type const at = text.find(before);
    if (at == std::string::npos) {
        return text;
    }
    std::string::size_type const start = at + sizeof before - 1;
    std::string::size_type const colon = text.find(':', start);
    std::string::size_type const end = text.find_first_not_of("0123456789", colon + 1);
    return text.substr(start, end - start);
}

// Steps of several operations

LDAPConnection::RefServer serverOf(Target const& target)
{
    return LDAPConnection::RefServer("127.0.0.1", target.port, LDAPConnection::V3, target.isSecure,
                                     target.patience, false, false);
}

LDAPSearch::Parameter lookUpUser()
{
    LDAPSearch::Parameter parameter(people);
    parameter.filter = std::string("(mail=") + userAddress + ")";
    parameter.attributes = {LDAPAttributeType("cn"), LDAPAttributeType("mail")};
    return parameter;
}

bool isUser(LDAPSearchResultEntry const& entry)
{
    std::string const values = valuesOf(entry);
    std::string const expected = std::string(userDn) + "|cn=" + userName + "|mail=" + userAddress;
    return values == expected;
}

std::string wordFor(std::list<LDAPSearchResultEntry> const& entries)
{
    if (entries.empty()) {
        return "not found";
    }
    return std::all_of(entries.begin(), entries.end(), isUser) ? "found" : "found altered";
}

std::string wordFor(LDAPResult const& result)
{
    int const code = result.resultCode();
    return code == 0 ? wordFor(result.searchResultEntries()) : "code " + std::to_string(code);
}

/// Whether the bind has been answered and accepted. The guide requires this check before "not
/// found" is trusted.
std::string confirmationOf(LDAPConnection const& connection)
{
    LDAPResult const& answer = connection.impl()->m_bindResult;
    if (answer.isNull() || answer.resultType() != 1) {
        return "unconfirmed";
    }
    return answer.resultCode() == 0 ? "bound" : "refused " + std::to_string(answer.resultCode());
}

std::string searchOn(LDAPConnection& connection, Target const& target)
{
    target.afterBind();
    LDAPSearch search(connection, lookUpUser());
    search.send();
    if (search.wait(target.patience)) {
        connection.unbind(); // so that a late answer does not reach the next search
        return "no answer";
    }
    return wordFor(search.result());
}

// Operations

class Bind : public Action {
public:
    Came run(Target const& target) override
    {
        return {SolvaneTest::wordFor([&] {
            LDAPConnection connection = connectionTo(target);
            if (target.startsTls) {
                connection.startTls();
            }
            if (target.usesKerberos) {
                connection.bindSasl(LDAPConnection::Gssapi);
                return std::string("bound");
            }
            return bindTo(connection, target);
        })};
    }
};

class Search : public Action {
public:
    Came run(Target const& target) override
    {
        return {SolvaneTest::wordFor([&] {
            LDAPConnection connection = connectionTo(target);
            std::string const bound = bindTo(connection, target);
            return bound == "bound" ? searchOn(connection, target) : bound;
        })};
    }
};

class Add : public Action {
public:
    Came run(Target const& target) override
    {
        return {SolvaneTest::wordFor([&] {
            LDAPConnection connection = connectionTo(target);
            std::string const bound = bindTo(connection, target);
            return bound == "bound" ? addOn(connection, target) : bound;
        })};
    }

private:
    static LDAPAttribute attributeOf(char const* type, char const* value)
    {
        LDAPAttribute attribute{LDAPAttributeType(std::string(type))};
        attribute.value(std::string(value));
        return attribute;
    }

    static std::string addOn(LDAPConnection& connection, Target const& target)
    {
        target.afterBind();
        std::string dn = newDn;
        LDAPAdd add(connection, dn);
        add.attributes({attributeOf("objectClass", "inetOrgPerson"), attributeOf("uid", "somebody"),
                        attributeOf("cn", "Somebody"), attributeOf("sn", "Somebody")});
        add.send();
        if (add.wait(target.patience)) {
            return "no answer";
        }
        int const code = add.result().resultCode();
        return code == 0 ? "added" : "code " + std::to_string(code);
    }
};

class PoolLookup : public Action {
public:
    Came run(Target const& target) override
    {
        LDAPConnection used;
        std::string word = SolvaneTest::wordFor([&] { return lookUp(target, used); });
        if (word == "Search.cpp:270 (4/4)" || word == "Search.cpp:332 (4/4)") {
            // The guide: once more on a new connection, as the pooled one may have been stale.
            word = SolvaneTest::wordFor([&] { return lookUp(target, used); });
        }
        // The marker was returned: it can be taken again, and only once.
        if (!used.isNull() && !(used.cacheMarkAsUsed() && !used.cacheMarkAsUsed())) {
            return {word, "marker still taken"};
        }
        if (!used.isNull()) {
            used.cacheMarkAsAvailable();
        }
        return {word};
    }

private:
    std::string lookUp(Target const& target, LDAPConnection& used)
    {
        used = m_pool.getConnection(serverOf(target), readerDn, readerPassword);
        if (used.isNull()) {
            return "refused";
        }
        struct Marker {
            LDAPConnection& taken;
            ~Marker() { taken.cacheMarkAsAvailable(); }
        } const marker{used};
        std::string const bound = confirmationOf(used);
        if (bound != "bound") {
            used.unbind();
            return bound;
        }
        return searchOn(used, target);
    }

    LDAPConnectionCache m_pool;
};

class UserQuery : public _LDAPQuery {
public:
    UserQuery(LDAPConnection& connection, Target const& target)
        : _LDAPQuery(connection, time(nullptr), timeoutOf(target), true),
          m_afterBind(target.afterBind)
    {
        bindParameters(readerDn, readerPassword);
    }

    void searchParameter() override
    {
        m_afterBind();
        m_search = LDAPSearch(m_connection, lookUpUser());
    }

    std::string word() const
    {
        switch (state()) {
        case QueryDone:
            return wordWhenDone();
        case QueryError:
            return "error " + placeIn(m_errorMessage);
        default:
            return "failed";
        }
    }

private:
    /// The driver adds two seconds.
    static unsigned int timeoutOf(Target const& target)
    {
        return std::max(target.patience, 2U) - 2;
    }

    std::string wordWhenDone() const
    {
        std::string const bound = confirmationOf(m_connection);
        return bound == "bound" ? wordFor(result()) : bound;
    }

    std::function<void()> m_afterBind;
};

class Query : public Action {
public:
    Came run(Target const& target) override
    {
        return {SolvaneTest::wordFor([&] {
            LDAPConnection connection = connectionTo(target);
            UserQuery query(connection, target);
            query.start();
            return query.word();
        })};
    }
};

LDAPLookup::Settings settingsFor(Target const& target)
{
    LDAPLookup::Server server;
    server.host = target.host;
    server.port = target.port;
    server.secure = target.isSecure;
    server.startTls = target.startsTls;
    LDAPLookup::Settings settings;
    settings.servers.push_back(server);
    server.host = "127.0.0.1";
    for (unsigned int const port : target.otherPorts) {
        server.port = port;
        settings.servers.push_back(server);
    }
    settings.nameServers = target.nameServers;
    settings.networkTimeout = target.patience;
    settings.deadline = target.deadline.count() != 0
                            ? target.deadline
                            : std::chrono::milliseconds(1500 * target.patience);
    if (target.usesKerberos) {
        settings.mechanism = Lookup::Mechanism::gssapi;
    } else {
        settings.bindDn = readerDn;
        settings.password = readerPassword;
    }
    settings.base = people;
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = {"cn", "mail"};
    settings.connections = 2;
    settings.tls.verify = Lookup::TlsVerify::none; // the handshake is what is disturbed here
    settings.tls.certificateFile = target.certificateFile;
    settings.tls.keyFile = target.keyFile;
    // No back-off: each lookup must meet the fault itself.
    settings.backOff = settings.longestBackOff = std::chrono::milliseconds(0);
    settings.refusedHold = std::chrono::milliseconds(0);
    return settings;
}

/// Whom an engine asks, and how patiently.
using Where = std::tuple<std::string, unsigned int, bool, bool, bool, unsigned int,
                         std::vector<unsigned int>, std::chrono::milliseconds, std::string>;

Where whereOf(Target const& target)
{
    return {target.host,       target.port,         target.isSecure,
            target.startsTls,  target.usesKerberos, target.patience,
            target.otherPorts, target.deadline,     target.certificateFile};
}

/// What an operation keeps between its runs; made anew for another server.
template <typename Handle> class Kept {
public:
    Handle& at(Target const& target)
    {
        Where const where = whereOf(target);
        if (!m_handle || m_where != where) {
            m_handle.reset();
            m_handle = std::make_unique<Handle>(settingsFor(target));
            m_where = where;
        }
        return *m_handle;
    }
    /// Null if there is none yet.
    Handle* get() const { return m_handle.get(); }

private:
    std::unique_ptr<Handle> m_handle;
    Where m_where;
};

constexpr char const* outcomeNames[] = {"Found",    "NotFound", "Skipped",      "BadKey",
                                        "TryLater", "Refused",  "Misconfigured"};

std::string wordOf(LDAPLookup::Answer const& answer)
{
    std::string word = outcomeNames[static_cast<int>(answer.outcome)];
    if (answer.outcome == LDAPLookup::Outcome::Found) {
        word = wordFor(answer.entries);
    } else {
        word += ' ' + std::to_string(answer.code);
    }
    bool const isConfirmed = answer.identity == LDAPLookup::Identity::Confirmed;
    return answer.code == 0 && !isConfirmed ? word + " unconfirmed" : word;
}

class Engine : public Action {
public:
    Came run(Target const& target) override
    {
        Came came = {
            SolvaneTest::wordFor([&] { return wordOf(m_kept.at(target).find(userAddress)); })};
        std::string const failure = SolvaneTest::wordFor([&] {
            findAll(m_kept.at(target), came);
            return std::string();
        });
        if (!failure.empty()) {
            came.push_back(failure);
        }
        return came;
    }

private:
    static void findAll(LDAPLookup& lookup, Came& came)
    {
        constexpr int keys = 2;
        int given = 0;
        int answered = 0;
        lookup.findAll(
            [&](std::string& key, bool) {
                key = userAddress;
                return given++ < keys ? LDAPLookup::Supply::key : LDAPLookup::Supply::end;
            },
            [&](std::string const&, LDAPLookup::Answer&& answer) {
                came.push_back(wordOf(answer));
                ++answered;
                return true;
            });
        if (answered != keys) {
            came.push_back("an answer is missing");
        }
    }

    Kept<LDAPLookup> m_kept;
};

/// A loop that does nothing but wait for the queue's descriptor.
class Submit : public Action {
public:
    Came run(Target const& target) override
    {
        ++m_run;
        Came came;
        std::string const failure = SolvaneTest::wordFor([&] {
            answerKeys(m_kept.at(target).queue, came);
            return std::string();
        });
        if (!failure.empty()) {
            came.push_back(failure);
            if (m_kept.get() != nullptr) {
                m_kept.get()->queue.cancel(m_run);
            }
        }
        return came;
    }

private:
    struct QueueAndEngine {
        explicit QueueAndEngine(LDAPLookup::Settings const& settings)
            : lookup(settings), queue(lookup)
        {
        }
        LDAPLookup lookup;
        LDAPLookupQueue queue;
    };

    void answerKeys(LDAPLookupQueue& queue, Came& came) const
    {
        constexpr int keys = 3;
        for (int i = 0; i < keys; ++i) {
            queue.submit(userAddress, m_run);
        }
        int answered = 0;
        while (queue.pending() != 0) {
            if (!isReadable(queue.descriptor())) {
                came.push_back("nothing wakes the loop");
                queue.cancel(m_run);
            }
            while (auto const result = queue.next()) {
                bool const isOurs = result->tag == m_run && result->key == userAddress;
                came.push_back(isOurs ? wordOf(result->answer) : "an answer to another key");
                ++answered;
            }
        }
        if (answered != keys) {
            came.push_back("an answer is missing");
        }
    }

    /// Whether it is so within far more time than any deadline here.
    static bool isReadable(int descriptor)
    {
        constexpr int tooLong = 25000;
        pollfd polled = {descriptor, POLLIN, 0};
        int ready = poll(&polled, 1, tooLong);
        while (ready < 0 && errno == EINTR) {
            ready = poll(&polled, 1, tooLong);
        }
        return ready == 1;
    }

    Kept<QueueAndEngine> m_kept;
    LDAPLookupQueue::Tag m_run = 0;
};

/// With the right password: "accepted", "right denied". With a wrong one: "denied", "wrong
/// accepted". Any other outcome by its name and code.
class Verify : public Action {
public:
    Came run(Target const& target) override
    {
        Came came;
        for (bool const isRight : {true, false}) {
            came.push_back(SolvaneTest::wordFor([&] {
                LDAPLookup& lookup = m_kept.at(target);
                return wordOf(lookup.verify(userAddress, isRight ? userPassword : "wrong"),
                              isRight);
            }));
        }
        return came;
    }

private:
    static std::string wordOf(LDAPLookup::Verification const& verification, bool isRight)
    {
        switch (verification.outcome) {
        case LDAPLookup::VerifyOutcome::Accepted:
            return isRight ? "accepted" : "wrong accepted";
        case LDAPLookup::VerifyOutcome::Denied:
            return isRight ? "right denied" : "denied";
        default: // they follow each other as those of lookups
            return outcomeNames[static_cast<int>(verification.outcome) - 1] +
                   (' ' + std::to_string(verification.code));
        }
    }

    Kept<LDAPLookup> m_kept;
};

class Tool : public Action {
public:
    explicit Tool(std::string path)
        : m_path(std::move(path)), m_password(m_folder.path() / "password")
    {
        std::ofstream(m_password) << readerPassword;
        chmod(m_password.c_str(), S_IRUSR | S_IWUSR);
    }

    Came run(Target const& target) override
    {
        std::vector<std::string> command = target.toolPrefix;
        std::string const patience = std::to_string(target.patience);
        std::string const scheme = target.isSecure ? "ldaps://" : "ldap://";
        bool const hasDeadline = target.deadline.count() != 0;
        std::string const deadline =
            std::to_string(hasDeadline ? target.deadline.count() / 1000 : target.patience + 1);
        command.push_back(m_path);
        command.insert(command.end(), target.toolOptions.begin(), target.toolOptions.end());
        command.insert(command.end(),
                       {"-H", scheme + target.host + ':' + std::to_string(target.port)});
        for (unsigned int const port : target.otherPorts) {
            command.insert(command.end(), {"-H", scheme + "127.0.0.1:" + std::to_string(port)});
        }
        for (std::string const& nameServer : target.nameServers) {
            command.insert(command.end(), {"--name-servers", nameServer});
        }
        if (target.startsTls) {
            command.push_back("-ZZ");
        }
        if (!target.certificateFile.empty()) {
            command.insert(command.end(),
                           {"--tls-cert", target.certificateFile, "--tls-key", target.keyFile});
        }
        if (target.usesKerberos) {
            command.insert(command.end(), {"-Y", "GSSAPI"});
        } else {
            command.insert(command.end(), {"-D", readerDn, "-y", m_password.string()});
        }
        command.insert(command.end(),
                       {"-o", "nettimeout=" + patience, "--deadline", deadline, "--tls-verify",
                        "none", "--format", "tsv", "lookup", "-b", people, "-t", "(mail=$m)",
                        "--attrs", "cn,mail", userAddress});
        ProgramOutcome const ended = SolvaneTest::run(command);
        return {wordFor(ended)};
    }

private:
    static std::string wordFor(ProgramOutcome const& ended)
    {
        std::string const word = "exit " + std::to_string(ended.exitStatus);
        std::string const record =
            std::string(userAddress) + '\t' + userName + ',' + userAddress + "\tfound\n";
        if (ended.exitStatus == 0) {
            return ended.output == record ? word : word + " altered";
        }
        constexpr int sanitizerFoundSomething = 128;
        bool const isCrash = ended.exitStatus >= sanitizerFoundSomething ||
                             ended.output.find("Sanitizer") != std::string::npos;
        return isCrash ? word + ": " + ended.output : word;
    }

    TemporaryDirectory m_folder;
    std::string m_path;
    std::filesystem::path m_password;
};

} // namespace

std::string valuesOf(LDAPSearchResultEntry const& entry)
{
    std::string text = entry.entryName();
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        text += '|' + attribute.type().asString();
        for (std::string const& value : attribute.value()) {
            text += '=' + value;
        }
    }
    return text;
}

LDAPConnection connectionTo(Target const& target)
{
    return LDAPConnection(serverOf(target), false);
}

std::string bindTo(LDAPConnection& connection, Target const& target)
{
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);
    connection.bindWait(target.patience);
    return confirmationOf(connection);
}

std::string wordFor(std::function<std::string()> const& work)
{
    try {
        return work();
    } catch (Exception const& fault) {
        return placeOf(fault);
    } catch (std::bad_alloc const&) {
        return "out of memory";
    } catch (std::system_error const& fault) {
        return std::string("system error: ") + fault.what();
    } catch (std::exception const& fault) {
        return std::string("std::exception: ") + fault.what();
    }
}

std::unique_ptr<Action> makeAction(Column column, std::string const& tool)
{
    switch (column) {
    case Column::bind:
        return std::make_unique<Bind>();
    case Column::search:
        return std::make_unique<Search>();
    case Column::add:
        return std::make_unique<Add>();
    case Column::modify:
    case Column::remove:
    case Column::compare:
    case Column::stream:
        return makeRequest(column);
    case Column::pool:
        return std::make_unique<PoolLookup>();
    case Column::query:
        return std::make_unique<Query>();
    case Column::engine:
        return std::make_unique<Engine>();
    case Column::submit:
        return std::make_unique<Submit>();
    case Column::verify:
        return std::make_unique<Verify>();
    case Column::tool:
        break;
    }
    return std::make_unique<Tool>(tool);
}

} // namespace SolvaneTest
