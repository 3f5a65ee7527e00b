// Adds one entry.
//
//   LDAP_PASSWORD=... add_entry HOST PORT BIND-DN DN UID [CERTIFICATE]
//
// Adds a person with this DN and uid. CERTIFICATE is a file in DER; its bytes become the person's
// userCertificate. Prints the server's answer. Exit status: 0 added, 1 refused by the server, 2 failure.
#include <solvane/ldap.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

Solvane::LDAPAttribute attributeOf(std::string const& type, std::string const& value)
{
    Solvane::LDAPAttribute attribute{Solvane::LDAPAttributeType(type)};
    attribute.value(value);
    return attribute;
}

Solvane::LDAPAttributeContainer personOf(std::string const& uid)
{
    return Solvane::LDAPAttributeContainer(
        {attributeOf("objectClass", "inetOrgPerson"), attributeOf("uid", uid),
         attributeOf("cn", uid), attributeOf("sn", uid), attributeOf("mail", uid + "@corp.test")});
}

/// The option "binary" sends a value with all its bytes; other values end at their first zero byte.
Solvane::LDAPAttribute certificateFrom(char const* path)
{
    std::ifstream file(path, std::ios::binary);
    std::string const bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return attributeOf("userCertificate;binary", bytes);
}

} // namespace

int main(int argc, char** argv)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    if (argc < 6 || argc > 7 || password == nullptr) {
        std::cerr << "usage: LDAP_PASSWORD=... add_entry HOST PORT BIND-DN DN UID [CERTIFICATE]\n";
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
        std::string dn = argv[4];
        Solvane::LDAPAdd add(connection, dn);
        add.attributes(personOf(argv[5]));
        if (argc == 7) {
            add.attributes({certificateFrom(argv[6])});
        }
        add.send();
        if (add.wait(timeoutSeconds)) {
            std::cerr << "The server did not answer. The entry may or may not exist.\n";
            return 2;
        }
        Solvane::LDAPResult const& result = add.result();
        if (result.resultCode() != 0) {
            std::cout << "refused " << result.resultCode() << " " << result.errorMessage() << '\n';
            return 1;
        }
        std::cout << "added " << dn << '\n';
        return 0;
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
    } catch (Solvane::Exception const& failure) {
        std::cerr << failure.asString() << '\n';
    }
    return 2;
}
