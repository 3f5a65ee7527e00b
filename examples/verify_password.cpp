// The lookup engine: whether a password is right.
//
//   LDAP_PASSWORD=... verify_password HOST PORT BIND-DN BASE ADDRESS < PASSWORD
//
// Reads the user's password from standard input, one line.
//
// Exit status: 0 accepted, 1 denied or no such user, 75 temporary failure, 78 a setting is wrong.
#include <solvane/lookup.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include <sysexits.h>

using namespace Solvane;

namespace {

LDAPLookup::Settings settingsFrom(char** arguments)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    LDAPLookup::Settings settings;
    settings.servers.emplace_back(); // in production: with `secure` or `startTls`
    settings.servers.back().host = arguments[1];
    settings.servers.back().port = static_cast<unsigned int>(std::atoi(arguments[2]));
    settings.bindDn = arguments[3];
    settings.password = password == nullptr ? "" : password;
    settings.base = arguments[4];
    settings.queryTemplate = "(mail=$m)";
    return settings;
}

/// What the user may know.
char const* reasonOf(LDAPLookup::Denial denial)
{
    switch (denial) {
    case LDAPLookup::Denial::expired:
        return "your password has expired";
    case LDAPLookup::Denial::locked:
        return "your account is locked";
    case LDAPLookup::Denial::mustChange:
        return "change your password first";
    default:
        return "wrong address or password"; // the same for both
    }
}

/// Accepts, refuses or defers a login; returns the exit status for it.
int actOn(LDAPLookup::Verification const& verification)
{
    switch (verification.outcome) {
    case LDAPLookup::VerifyOutcome::Accepted:
        std::cout << "welcome, " << verification.dn << '\n';
        if (verification.expiresIn) {
            std::cout << "your password expires in " << verification.expiresIn->count() << " s\n";
        }
        return EX_OK;
    case LDAPLookup::VerifyOutcome::Denied: // a server answered
    case LDAPLookup::VerifyOutcome::NotFound:
    case LDAPLookup::VerifyOutcome::Skipped:
    case LDAPLookup::VerifyOutcome::BadKey:
        std::cout << "refused: " << reasonOf(verification.denial) << '\n';
        return 1;
    default: // the question was not answered: never let the user in
        std::cout << "try later\n";
        std::cerr << verification.text << '\n';
        return verification.outcome == LDAPLookup::VerifyOutcome::TryLater ? EX_TEMPFAIL
                                                                           : EX_CONFIG;
    }
}

} // namespace

int main(int count, char** arguments)
{
    std::string password;
    if (count != 6 || !std::getline(std::cin, password)) {
        std::cerr << "usage: verify_password HOST PORT BIND-DN BASE ADDRESS < PASSWORD\n";
        return EX_USAGE;
    }
    try {
        LDAPLookup lookup(settingsFrom(arguments));
        LDAPLookup::Verification const verification = lookup.verify(arguments[5], password);
        Lookup::wipe(password);
        return actOn(verification);
    } catch (Exception const& fault) {
        std::cerr << "verify_password: " << fault.asString() << '\n';
    } catch (std::exception const& fault) {
        std::cerr << "verify_password: " << fault.what() << '\n';
    }
    return EX_CONFIG;
}
