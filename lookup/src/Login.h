// A user's password, on its way to a verification.
#ifndef SOLVANE_LOOKUP_SRC_LOGIN_H
#define SOLVANE_LOOKUP_SRC_LOGIN_H

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/Verification.h>

#include <solvane/ldap/RefCounted.h>
#include <solvane/session/BindResult.h>
#include <solvane/session/PlainText.h>

#include <string>
#include <utility>

namespace Solvane::Lookup {

/// A password, and what is known about it. One pipeline finds the entry of its key, another one,
/// whose pool has connections for this purpose only, binds as that entry:
///
///     finding --exactly one entry--> binding --response--> verification
///        |                                                      ^
///        +--anything else---------------------------------------+
///
/// The password is wiped once there is a verification, at the latest by the destructor. It is never
/// copied or moved: both would leave bytes behind. Not thread-safe.
struct Login : public NonCopyable {
    /// @param guard  as for `LDAPLookupQueue::submitVerify`
    explicit Login(std::string const& secret, BindGuard guard = nullptr)
        : password(secret), mayBind(std::move(guard))
    {
    }
    ~Login() { wipe(password); }

    /// Takes the answer to the search. Returns whether a bind is to follow; otherwise the
    /// verification is complete.
    bool takeEntry(Answer const& answer);
    /// Takes the answer to the bind: the verification is complete.
    void takeBind(Answer const& answer);

    std::string password;
    BindGuard mayBind;         ///< empty: it always may
    std::string server;        ///< to ask first, as its URI; empty: any
    BindResult response;       ///< the last one
    Verification verification; ///< its DN and denial as soon as they are known

private:
    void finish(VerifyOutcome outcome, Answer const& answer);
    void misconfigured(int code, Answer const& answer, std::string const& text);
};

} // namespace Solvane::Lookup

#endif
