// Several queries in flight on one connection, driven by one thread.
//
//   LDAP_PASSWORD=... driven_queries HOST PORT BIND-DN BASE ADDRESS...
//
// Sends all searches before it waits for the first, so that all of them share one round trip. Prints
// a line per address. Exit status: 0 all found, 1 one not found, 2 failure.
#include <solvane/ldap.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr unsigned int timeoutSeconds = 5;

/// Looks one address up on a bound connection, which it shares with other queries.
class AddressQuery : public Solvane::_LDAPQuery {
public:
    AddressQuery(Solvane::LDAPConnection& bound, std::string base, std::string address)
        : _LDAPQuery(bound, time(nullptr), timeoutSeconds, false), m_base(std::move(base)),
          m_address(std::move(address))
    {
    }

    void searchParameter() override
    {
        m_parameter = Solvane::LDAPSearch::RefParameter(m_base);
        m_parameter->filter = Solvane::LDAPUtil::instanceFilterTemplate(
            "(mail=$m)", Solvane::EmailAddress(m_address));
        m_parameter->attributes = {std::string("cn")};
        m_search = Solvane::LDAPSearch(m_connection, m_parameter);
    }

    std::string const& address() const { return m_address; }

private:
    std::string m_base;
    std::string m_address;
};

/// Prints the outcome of a query and returns the exit status for it.
int report(AddressQuery const& query)
{
    std::cout << query.address() << ": ";
    if (query.state() != Solvane::_LDAPQuery::QueryDone || query.result().resultCode() != 0) {
        std::cout << "no answer (state " << query.state() << ")\n";
        return 2;
    }
    if (query.result().searchResultEntries().empty()) {
        std::cout << "not found\n";
        return 1;
    }
    std::cout << query.result().searchResultEntries().front().entryName() << '\n';
    return 0;
}

/// A server limits the requests in flight on a connection (slapd: 1000, conn_max_pending_auth). Send
/// a longer list in parts.
int lookUpAll(Solvane::LDAPConnection& bound, std::string const& base,
              std::vector<std::string> const& addresses)
{
    std::vector<Solvane::RefLDAPQuery> queries;
    for (std::string const& address : addresses) {
        queries.emplace_back(new AddressQuery(bound, base, address));
        queries.back()->submitSearch();
    }
    int worst = 0;
    for (Solvane::RefLDAPQuery const& query : queries) {
        query->searchResponseHandler();
        worst = std::max(worst, report(static_cast<AddressQuery const&>(*query)));
    }
    return worst;
}

} // namespace

int main(int argc, char** argv)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    if (argc < 6 || password == nullptr) {
        std::cerr << "usage: LDAP_PASSWORD=... driven_queries HOST PORT BIND-DN BASE ADDRESS...\n";
        return 2;
    }
    try {
        unsigned int const port = static_cast<unsigned int>(std::stoul(argv[2]));
        Solvane::LDAPConnection::RefServer const server(argv[1], port, Solvane::LDAPConnection::V3,
                                                        false, timeoutSeconds, false, false);
        Solvane::LDAPConnection connection(server, false);
        connection.bind(argv[3], password, Solvane::LDAPConnection::Asynchronous);
        if (!connection.bindWait(timeoutSeconds)) {
            std::cerr << "The server refused the bind.\n";
            return 2;
        }
        return lookUpAll(connection, argv[4], std::vector<std::string>(argv + 5, argv + argc));
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
    } catch (Solvane::Exception const& failure) {
        std::cerr << failure.asString() << '\n';
    }
    return 2;
}
