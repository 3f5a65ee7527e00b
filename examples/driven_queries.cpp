// Several queries under way at once, driven side by side from one thread.
//
//   LDAP_PASSWORD=... driven_queries HOST PORT BIND-DN BASE ADDRESS...
//
// All searches are sent before the first is awaited, so that the directory works on them together.
// Prints a line per address; ends with 0 when each was found, 1 when one was not, 2 on trouble.
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

/// Looks one address up, on a connection of the pool.
class AddressQuery : public Solvane::_LDAPQuery {
public:
    AddressQuery(Solvane::LDAPConnection const& pooled, std::string base, std::string address)
        : _LDAPQuery(time(nullptr), timeoutSeconds), m_base(std::move(base)),
          m_address(std::move(address))
    {
        m_connection = pooled; // the base class gives it back to the pool in the end
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

/// Prints how a query ended; returns what the program should end with for it.
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

int lookUpAll(Solvane::LDAPConnection::RefServer const& server, std::string const& dn,
              std::string const& password, std::string const& base,
              std::vector<std::string> const& addresses)
{
    Solvane::LDAPConnectionCache pool;
    std::vector<Solvane::RefLDAPQuery> queries;
    for (std::string const& address : addresses) {
        Solvane::LDAPConnection const pooled = pool.getConnection(server, dn, password);
        if (pooled.isNull()) {
            std::cerr << "The server refused the bind.\n";
            return 2;
        }
        queries.emplace_back(new AddressQuery(pooled, base, address));
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
        return lookUpAll(server, argv[3], password, argv[4],
                         std::vector<std::string>(argv + 5, argv + argc));
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
    } catch (Solvane::Exception const& failure) {
        std::cerr << failure.asString() << '\n';
    }
    return 2;
}
