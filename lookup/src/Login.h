// The bind of a user whose password is verified.
#ifndef SOLVANE_LOOKUP_SRC_LOGIN_H
#define SOLVANE_LOOKUP_SRC_LOGIN_H

#include <solvane/lookup/Verification.h>

#include <solvane/ldap/RefCounted.h>
#include <solvane/session/BindResult.h>
#include <solvane/session/PlainText.h>

#include <string>

namespace Solvane::Lookup {

/// A DN and a password, and what a server said to them. The password is wiped by the destructor,
/// and never copied or moved: both would leave bytes behind. Not thread-safe.
struct Login : public NonCopyable {
    explicit Login(std::string const& secret) : password(secret) {}
    ~Login() { wipe(password); }

    std::string dn;
    std::string server; ///< to ask first, as its URI
    std::string password;

    BindResult result;            ///< of the last bind that was answered
    Denial denial = Denial::none; ///< by this result
};

} // namespace Solvane::Lookup

#endif
