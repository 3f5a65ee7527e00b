// The lookup engine: what a mail server does with each address.
//
//   LDAP_PASSWORD=... address_lookup HOST PORT BIND-DN BASE ADDRESS...
//
// Exit status: 0 all delivered, 1 at least one rejected, 75 at least one deferred, 78 a setting is wrong.
#include <solvane/lookup.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>

#include <sysexits.h>

using namespace Solvane;

namespace {

LDAPLookup::Settings settingsFrom(char** arguments)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    LDAPLookup::Settings settings;
    settings.servers.emplace_back(); // several servers: in order of preference
    settings.servers.back().host = arguments[1];
    settings.servers.back().port = static_cast<unsigned int>(std::atoi(arguments[2]));
    settings.bindDn = arguments[3];
    settings.password = password == nullptr ? "" : password;
    settings.base = arguments[4];
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = {"cn"};
    return settings;
}

/// Delivers, rejects or defers; returns the exit status for it.
int actOn(std::string const& address, LDAPLookup::Answer const& answer)
{
    switch (answer.outcome) {
    case LDAPLookup::Outcome::Found:
        std::cout << address << ": deliver to " << answer.entries.front().entryName() << '\n';
        return EX_OK;
    case LDAPLookup::Outcome::NotFound: // the server answered: no such entry
    case LDAPLookup::Outcome::Skipped:
    case LDAPLookup::Outcome::BadKey:
        std::cout << address << ": reject, no such user\n";
        return 1;
    default: // temporary failure: never bounce
        std::cout << address << ": defer, " << answer.text << '\n';
        return answer.outcome == LDAPLookup::Outcome::TryLater ? EX_TEMPFAIL : EX_CONFIG;
    }
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 6) {
        std::cerr << "usage: address_lookup HOST PORT BIND-DN BASE ADDRESS...\n";
        return EX_USAGE;
    }
    try {
        LDAPLookup lookup(settingsFrom(arguments));
        int worst = EX_OK;
        for (int i = 5; i < count; ++i) {
            worst = std::max(worst, actOn(arguments[i], lookup.find(arguments[i])));
        }
        return worst;
    } catch (Exception const& fault) {
        std::cerr << "address_lookup: " << fault.asString() << '\n';
    } catch (std::exception const& fault) {
        std::cerr << "address_lookup: " << fault.what() << '\n';
    }
    return EX_CONFIG;
}
