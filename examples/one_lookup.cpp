// One lookup: a filter from a template, a bind, a search, its entries.
//
//   LDAP_PASSWORD=... one_lookup HOST PORT BIND-DN BASE ADDRESS
//
// Exit status: 0 found, 1 not found, 2 failure.
#include <solvane/ldap.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace {

void print(Solvane::LDAPSearchResultEntry const& entry)
{
    std::cout << "dn: " << entry.entryName() << '\n';
    for (Solvane::LDAPAttribute const& attribute : entry.attributes().attributes()) {
        for (std::string const& value : attribute.value()) {
            std::cout << attribute.type().asString() << ": " << value << '\n';
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    if (argc != 6 || password == nullptr) {
        std::cerr << "usage: LDAP_PASSWORD=... one_lookup HOST PORT BIND-DN BASE ADDRESS\n";
        return 2;
    }
    constexpr unsigned int timeoutSeconds = 10;
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

        Solvane::LDAPSearch::Parameter parameter(argv[4]);
        parameter.filter =
            Solvane::LDAPUtil::instanceFilterTemplate("(mail=$m)", Solvane::EmailAddress(argv[5]));
        parameter.attributes = {std::string("cn"), std::string("mail")};
        Solvane::LDAPSearch search(connection, parameter);
        search.send();
        if (search.wait(timeoutSeconds) || search.result().resultCode() != 0) {
            std::cerr << "The search failed or was not answered in time.\n";
            return 2;
        }
        for (Solvane::LDAPSearchResultEntry const& entry : search.result().searchResultEntries()) {
            print(entry);
        }
        return search.result().searchResultEntries().empty() ? 1 : 0;
    } catch (Solvane::Exception const& failure) {
        std::cerr << failure.asString() << '\n';
        return 2;
    }
}
