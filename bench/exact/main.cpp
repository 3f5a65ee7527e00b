// Work with exact counts, done by the library and by usual C code on OpenLDAP.
//
// Each report is named <work>.<library or c>; figures.csv has the limits.
#include "Counting.h"
#include "Directory.h"

#include <solvane/ldap.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/lookup.h>
#include <solvane/session/EntryReader.h>
#include <solvane/session/Session.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include <ldap.h>

namespace SolvaneBench {

namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPConnectionCache;
using Solvane::LDAPSearch;

constexpr unsigned int timeoutSeconds = 10;
constexpr char bindDn[] = "cn=reader,dc=corp,dc=test";
constexpr char password[] = "reader-pw";
constexpr char filter[] = "(mail=user0000007@corp.test)";
/// Uncounted repetitions before the counted ones, for one-time initialisation.
constexpr unsigned int warmUp = 4;
constexpr unsigned int repetitions = 32;

void require(bool isAsExpected)
{
    if (!isAsExpected) {
        std::fputs("the work was not done\n", stderr);
        std::abort();
    }
}

/// Repeats the work and reports its counts.
template <typename Work>
void count(std::string const& name, unsigned int piecesAtATime, Work const& work)
{
    for (unsigned int i = 0; i != warmUp; ++i) {
        work();
    }
    forget();
    for (unsigned int i = 0; i != repetitions; ++i) {
        work();
    }
    report(name, repetitions * piecesAtATime);
}

LDAPConnection::RefServer serverOf(Directory const& directory)
{
    return LDAPConnection::RefServer("127.0.0.1", directory.port(), LDAPConnection::V3, false,
                                     timeoutSeconds, false, false);
}

int descriptorOf(LDAP* session)
{
    int descriptor = -1;
    ldap_get_option(session, LDAP_OPT_DESC, &descriptor);
    return descriptor;
}

// In C

struct Unbind {
    void operator()(LDAP* session) const { ldap_unbind_ext(session, nullptr, nullptr); }
};
using Session = std::unique_ptr<LDAP, Unbind>;

Session boundSession(Directory const& directory)
{
    LDAP* session = nullptr;
    std::string const uri = "ldap://127.0.0.1:" + std::to_string(directory.port()) + '/';
    require(ldap_initialize(&session, uri.c_str()) == LDAP_SUCCESS);
    int const version = LDAP_VERSION3;
    ldap_set_option(session, LDAP_OPT_PROTOCOL_VERSION, &version);
    berval credentials = {std::strlen(password), const_cast<char*>(password)};
    require(ldap_sasl_bind_s(session, bindDn, LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr,
                             nullptr) == LDAP_SUCCESS);
    return Session(session);
}

int sendInC(LDAP* session, char const* base, char const* attribute)
{
    char* attributes[] = {const_cast<char*>(attribute), nullptr};
    int id = 0;
    require(ldap_search_ext(session, base, LDAP_SCOPE_SUBTREE, filter,
                            attribute == nullptr ? nullptr : attributes, 0, nullptr, nullptr,
                            nullptr, -1, &id) == LDAP_SUCCESS);
    return id;
}

/// Reads everything in an entry. Returns the number of values.
unsigned int readEntry(LDAP* session, LDAPMessage* message)
{
    unsigned int values = 0;
    char* const dn = ldap_get_dn(session, message);
    BerElement* position = nullptr;
    char* name = ldap_first_attribute(session, message, &position);
    while (name != nullptr) {
        berval** const found = ldap_get_values_len(session, message, name);
        for (berval** value = found; value != nullptr && *value != nullptr; ++value) {
            values += (*value)->bv_len != 0 ? 1U : 0U;
        }
        ldap_value_free_len(found);
        ldap_memfree(name);
        name = ldap_next_attribute(session, message, position);
    }
    ber_free(position, 0);
    ldap_memfree(dn);
    return values;
}

/// Reads and frees the answer message by message. Returns the number of values.
unsigned int receiveInC(LDAP* session, int id)
{
    unsigned int values = 0;
    for (;;) {
        timeval timeout = {timeoutSeconds, 0};
        LDAPMessage* message = nullptr;
        int const type = ldap_result(session, id, LDAP_MSG_ONE, &timeout, &message);
        require(type > 0);
        if (type == LDAP_RES_SEARCH_ENTRY) {
            values += readEntry(session, message);
            ldap_msgfree(message);
            continue;
        }
        int code = LDAP_OTHER;
        char* matched = nullptr;
        char* text = nullptr;
        char** referrals = nullptr;
        require(ldap_parse_result(session, message, &code, &matched, &text, &referrals, nullptr,
                                  1) == LDAP_SUCCESS &&
                code == LDAP_SUCCESS);
        ldap_memfree(matched);
        ldap_memfree(text);
        ldap_memvfree(reinterpret_cast<void**>(referrals));
        return values;
    }
}

void lookUpInC(Directory const& directory)
{
    Session const session = boundSession(directory);
    count("lookup.c", 1, [&] {
        int id = 0;
        {
            Counted const counted;
            id = sendInC(session.get(), Directory::onePerson, "mail");
        }
        Directory::awaitAnswer(descriptorOf(session.get()), Directory::onePerson);
        Counted const counted;
        require(receiveInC(session.get(), id) == 1);
    });
}

void readEntriesInC(Directory const& directory)
{
    Session const session = boundSession(directory);
    count("entry.c", Directory::personCount, [&] {
        int const id = sendInC(session.get(), Directory::manyPersons, nullptr);
        Directory::awaitAnswer(descriptorOf(session.get()), Directory::manyPersons);
        Counted const counted;
        require(receiveInC(session.get(), id) == Directory::personCount * 6);
    });
}

void expandInC()
{
    std::string const user = "user0000007";
    std::string const domain = "corp.test";
    count("template.c", 1, [&] {
        Counted const counted;
        char text[256];
        int const length =
            std::snprintf(text, sizeof text, "(mail=%s@%s)", user.c_str(), domain.c_str());
        require(std::string(text, static_cast<std::size_t>(length)).size() == 28);
    });
}

// With the library

LDAPConnection boundConnection(Directory const& directory)
{
    LDAPConnection connection(serverOf(directory), false);
    connection.bind(bindDn, password, LDAPConnection::Asynchronous);
    require(connection.bindWait(timeoutSeconds));
    return connection;
}

unsigned int readBytes(Solvane::LDAPAttribute const& attribute)
{
    unsigned int values = 0;
    for (Solvane::Buffer const& value : attribute.binaryValue()) {
        values += value.length() != 0 ? 1U : 0U;
    }
    return values;
}

unsigned int readTexts(Solvane::LDAPAttribute const& attribute)
{
    unsigned int values = 0;
    for (std::string const& value : attribute.value()) {
        values += !value.empty() && !attribute.type().asString().empty() ? 1U : 0U;
    }
    return values;
}

/// Reads everything in an answer. Returns the number of values.
template <typename Read> unsigned int valuesOf(LDAPSearch const& search, Read const& read)
{
    unsigned int values = 0;
    for (auto const& entry : search.result().searchResultEntries()) {
        for (auto const& attribute : entry.attributes().attributes()) {
            values += read(attribute);
        }
    }
    return values;
}

/// @param read  reads an attribute
template <typename Read>
void lookUp(Directory const& directory, std::string const& name, Read const& read)
{
    LDAPConnection connection = boundConnection(directory);
    LDAPSearch::RefParameter const parameter(Directory::onePerson);
    parameter->filter = filter;
    parameter->attributes = {std::string("mail")};
    count(name, 1, [&] {
        std::optional<LDAPSearch> search;
        {
            Counted const counted;
            search.emplace(connection, parameter);
            search->send();
        }
        Directory::awaitAnswer(descriptorOf(connection.impl()->session()), Directory::onePerson);
        Counted const counted;
        require(!search->wait(timeoutSeconds) && search->result().resultCode() == LDAP_SUCCESS);
        require(valuesOf(*search, read) == 1);
        search.reset();
    });
}

/// Searches with a big answer, on a separate connection.
class BigSearches {
public:
    explicit BigSearches(Directory const& directory)
        : m_connection(boundConnection(directory)), m_parameter(Directory::manyPersons)
    {
        m_parameter->filter = filter;
    }

    /// A search whose answer has arrived.
    std::unique_ptr<LDAPSearch> sent()
    {
        auto search = std::make_unique<LDAPSearch>(m_connection, m_parameter);
        search->send();
        Directory::awaitAnswer(descriptorOf(m_connection.impl()->session()),
                               Directory::manyPersons);
        return search;
    }

    static void receive(LDAPSearch& search)
    {
        require(!search.wait(timeoutSeconds) &&
                search.result().searchResultEntries().size() == Directory::personCount);
    }

private:
    LDAPConnection m_connection;
    LDAPSearch::RefParameter m_parameter;
};

/// Stores a big answer, reads all of it like the C code, and frees it; then stores one to measure its
/// memory.
void readEntries(Directory const& directory)
{
    BigSearches searches(directory);
    count("entry.library", Directory::personCount, [&] {
        auto search = searches.sent();
        Counted const counted;
        BigSearches::receive(*search);
        require(valuesOf(*search, readBytes) == Directory::personCount * 6);
        search.reset();
    });
    std::list<std::unique_ptr<LDAPSearch>> stored;
    count("stored-entry.library", Directory::personCount, [&] {
        stored.push_back(searches.sent());
        Counted const counted;
        BigSearches::receive(*stored.back());
    });
}

// With the engine

using Solvane::LDAPLookup;
using Solvane::LDAPSearchResultEntry;

unsigned int valuesOf(std::list<LDAPSearchResultEntry> const& entries)
{
    unsigned int values = 0;
    for (LDAPSearchResultEntry const& entry : entries) {
        for (auto const& attribute : entry.attributes().attributes()) {
            values += readBytes(attribute);
        }
    }
    return values;
}

/// A call that sends, waits and reads: the wait is a poll, whenever the answer comes.
void find(Directory const& directory)
{
    LDAPLookup::Settings settings;
    settings.servers = {{"127.0.0.1", directory.port(), false, LDAPConnection::V3}};
    settings.bindDn = bindDn;
    settings.password = password;
    settings.base = Directory::onePerson;
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = {"mail"};
    LDAPLookup engine(settings);
    std::string const address = "user0000007@corp.test";
    count("find.library", 1, [&] {
        Counted const counted;
        LDAPLookup::Answer const answer = engine.find(address);
        require(answer.outcome == LDAPLookup::Outcome::Found && valuesOf(answer.entries) == 1);
    });
}

/// As `readEntries`, by the engine's session and reader.
void readEntriesOfASession(Directory const& directory)
{
    namespace Engine = Solvane::Lookup;
    Engine::SessionOptions options;
    options.host = "127.0.0.1";
    options.port = directory.port();
    options.bindDn = bindDn;
    std::string const secret = password;
    options.password = &secret;
    Engine::Session session(options);
    require(
        session
            .reach(Engine::Step::bind, Engine::Clock::now() + std::chrono::seconds(timeoutSeconds))
            .isGood());
    Engine::SearchRequest request;
    request.base = Directory::manyPersons;
    count("entry-by-engine.library", Directory::personCount, [&] {
        int id = 0;
        require(session.send(request, filter, id).isGood());
        session.flush();
        Directory::awaitAnswer(descriptorOf(session.handle()), Directory::manyPersons);
        Counted const counted;
        std::list<LDAPSearchResultEntry> entries;
        Engine::Session::Message message;
        while (session.receive(message) == Engine::Session::Received::message &&
               message.type == LDAP_RES_SEARCH_ENTRY) {
            require(Engine::readEntry(message.content, entries));
        }
        require(message.isSuccess && valuesOf(entries) == Directory::personCount * 6);
    });
}

void checkOut(Directory const& directory, unsigned int size)
{
    LDAPConnectionCache pool;
    auto const server = serverOf(directory);
    std::list<LDAPConnection> busy;
    for (unsigned int i = 0; i != size; ++i) {
        busy.push_back(pool.getConnection(server, bindDn, password));
    }
    LDAPConnection last = busy.back();
    last.cacheMarkAsAvailable();
    std::string const dn = bindDn;
    std::string const secret = password;
    count("checkout-of-" + std::to_string(size) + ".library", 1, [&] {
        Counted const counted;
        LDAPConnection connection = pool.getConnection(server, dn, secret);
        connection.cacheMarkAsAvailable();
    });
    require(static_cast<unsigned int>(pool.cacheHits().value()) == warmUp + repetitions);
}

void expand()
{
    std::string const query = "(mail=$m)";
    std::string const user = "user0000007";
    std::string const domain = "corp.test";
    std::string const none;
    count("template.library", 1, [&] {
        Counted const counted;
        require(Solvane::LDAPUtil::sv_ldap_expand_query(query, user, domain, none, none).size() ==
                28);
    });
}

void runAll()
{
    Directory const directory;
    lookUpInC(directory);
    lookUp(directory, "lookup.library", readBytes); // like the C code
    lookUp(directory, "lookup-of-texts.library", readTexts);
    readEntriesInC(directory);
    readEntries(directory);
    find(directory);
    readEntriesOfASession(directory);
    for (unsigned int const size : {1U, 64U, 512U}) {
        checkOut(directory, size);
    }
    expandInC();
    expand();
    std::printf("entry bytes %.3f\n", Directory::bytesOfAPerson());
}

} // namespace

} // namespace SolvaneBench

int main()
{
    try {
        SolvaneBench::runAll();
        return 0;
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
    } catch (Solvane::Exception const& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str());
    }
    return 1;
}
