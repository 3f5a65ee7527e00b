// Limits binds with a wrong password, so that the account is not locked out.
#ifndef SOLVANE_LOOKUP_SRC_CREDENTIALS_H
#define SOLVANE_LOOKUP_SRC_CREDENTIALS_H

#include <solvane/session/Mechanism.h>
#include <solvane/session/Verdict.h>

#include <chrono>
#include <cstddef>

namespace Solvane::Lookup {

/// The lock-out guard of the bind DN and its password, or of a SASL identity. Many directories lock
/// an account after a few failed binds, and a pool with a wrong password would send one per
/// connection and retry.
///
/// | known of the password         | a caller that wants to bind |
/// |-------------------------------|-----------------------------|
/// | nothing yet, no bind pending  | binds                       |
/// | nothing yet, one bind pending | waits for its outcome       |
/// | refused less than `hold` ago  | fails with that refusal     |
/// | accepted by any server        | binds                       |
///
/// So a wrong password costs one failed bind per `hold`, and the next one goes to the next server,
/// as only one replica may be out of date. Once accepted, a refusal concerns only the server that
/// sent it. Not thread-safe: guarded by the pool's mutex.
class Credentials {
public:
    /// @param isNeeded  false: anonymous, no limit
    /// @param hold      pause after a refusal
    Credentials(bool isNeeded, Clock::duration hold) : m_isAccepted(!isNeeded), m_hold(hold) {}

    /// Whether a bind that failed with this code failed for its credentials, so that another server
    /// would refuse them, too. For SASL they include the client certificate, from which a server may
    /// derive no identity (48), and the authorization id (50).
    static bool areRefused(int code, Mechanism mechanism);

    bool areAccepted() const { return m_isAccepted; }
    Clock::duration hold() const { return m_hold; }

    /// What a caller that wants to bind must do.
    enum class Turn {
        bind,   ///< bind and report the outcome
        wait,   ///< wait for the outcome of another caller's bind
        refuse, ///< fail with `refusal`: they were refused recently
    };
    Turn turn(Clock::time_point now) const;
    /// The verdict to return while no bind may be sent.
    Verdict refusal(Clock::time_point now) const;
    /// The index of the server to try first: after a refusal, the one after the server that
    /// refused.
    std::size_t firstServer(std::size_t servers) const;

    /// A caller is going to bind, if its turn is `bind`. Others wait for it until `until`: it may be held
    /// up by something else.
    void begin(Clock::time_point until)
    {
        if (!m_isAccepted) {
            m_claimedUntil = until;
        }
    }
    /// When the next caller's turn comes at the latest.
    Clock::time_point claimedUntil() const { return m_claimedUntil; }
    /// A server accepted them.
    void accepted();
    /// A server refused them.
    /// @param server  its place in the list
    void refused(std::size_t server, Verdict const& why, Clock::time_point now);
    /// The bind was not sent, or not answered.
    void leftOpen() { m_claimedUntil = Clock::time_point::min(); }

private:
    bool m_isAccepted;
    Clock::duration m_hold;
    Clock::time_point m_claimedUntil = Clock::time_point::min();
    bool m_wasRefused = false;
    std::size_t m_refusedBy = 0;
    Clock::time_point m_heldUntil;
    Verdict m_why;
};

} // namespace Solvane::Lookup

#endif
