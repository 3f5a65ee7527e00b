// Lookups from many threads with one pool of bound connections.
//
//   LDAP_PASSWORD=... pooled_lookups HOST PORT BIND-DN BASE THREADS LOOKUPS
//
// The threads look up user0000001@corp.test and the following users and check each answer. Prints the
// number of lookups, of connections opened and of pool hits. Exit status: 0 if every answer was right.
#include <solvane/ldap.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned int timeoutSeconds = 10;

/// Checks a connection out of the pool; the destructor returns it.
class Borrowed {
public:
    Borrowed(Solvane::LDAPConnectionCache& pool, Solvane::LDAPConnection::RefServer const& server,
             std::string const& dn, std::string const& password)
        : m_connection(pool.getConnection(server, dn, password))
    {
    }
    ~Borrowed()
    {
        if (!m_connection.isNull()) {
            m_connection.cacheMarkAsAvailable();
        }
    }
    Borrowed(Borrowed const&) = delete;
    Borrowed& operator=(Borrowed const&) = delete;

    Solvane::LDAPConnection& connection() { return m_connection; }

private:
    Solvane::LDAPConnection m_connection;
};

struct Directory {
    Solvane::LDAPConnection::RefServer server;
    std::string dn;
    std::string password;
    std::string base;
};

/// The uid of a user; empty unless the search finds exactly one entry.
std::string uidOf(Solvane::LDAPConnectionCache& pool, Directory const& directory,
                  Solvane::EmailAddress const& address)
{
    Borrowed borrowed(pool, directory.server, directory.dn, directory.password);
    if (borrowed.connection().isNull()) { // the server refused the bind
        return std::string();
    }
    Solvane::LDAPSearch::Parameter parameter(directory.base);
    parameter.filter = Solvane::LDAPUtil::instanceFilterTemplate("(mail=$m)", address);
    parameter.attributes = {std::string("uid")};
    Solvane::LDAPSearch search(borrowed.connection(), parameter);
    search.send();
    if (search.wait(timeoutSeconds)) {
        borrowed.connection().unbind(); // the answer may still arrive: the pool drops it
        return std::string();
    }
    if (search.result().searchResultEntries().size() != 1) {
        return std::string();
    }
    Solvane::LDAPSearchResultEntry const& entry = search.result().searchResultEntries().front();
    return entry.attributes().empty() ? std::string()
                                      : entry.attributes().attributes().front().asString(',');
}

std::string userOf(unsigned int number)
{
    char text[16];
    std::snprintf(text, sizeof text, "user%07u", number);
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    if (argc != 7 || password == nullptr) {
        std::cerr
            << "usage: LDAP_PASSWORD=... pooled_lookups HOST PORT BIND-DN BASE THREADS LOOKUPS\n";
        return 2;
    }
    try {
        unsigned int const port = static_cast<unsigned int>(std::stoul(argv[2]));
        Directory const directory{
            {argv[1], port, Solvane::LDAPConnection::V3, false, timeoutSeconds, false, false},
            argv[3],
            password,
            argv[4]};
        unsigned int const threadCount = static_cast<unsigned int>(std::stoul(argv[5]));
        unsigned int const lookupCount = static_cast<unsigned int>(std::stoul(argv[6]));

        Solvane::LDAPConnectionCache pool;
        std::atomic<unsigned int> wrong{0};
        std::vector<std::thread> threads;
        for (unsigned int thread = 0; thread != threadCount; ++thread) {
            threads.emplace_back([&, thread] {
                for (unsigned int number = thread + 1; number <= lookupCount;
                     number += threadCount) {
                    std::string const user = userOf(number);
                    try {
                        Solvane::EmailAddress const address(user + "@corp.test");
                        wrong += uidOf(pool, directory, address) == user ? 0 : 1;
                    } catch (Solvane::Exception const& failure) {
                        std::cerr << failure.asString() + "\n";
                        ++wrong;
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::cout << lookupCount << " lookups, " << pool.cacheSize().value()
                  << " connections opened, " << pool.cacheHits().value() << " pool hits, " << wrong
                  << " wrong answers\n";
        return wrong == 0 ? 0 : 1;
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
    } catch (Solvane::Exception const& failure) {
        std::cerr << failure.asString() << '\n';
    }
    return 2;
}
