// When a bind may be sent: a wrong password must not lock the account.
#ifndef SOLVANE_LOOKUP_SRC_CREDENTIALS_H
#define SOLVANE_LOOKUP_SRC_CREDENTIALS_H

#include <solvane/session/Verdict.h>

#include <chrono>
#include <cstddef>

namespace Solvane::Lookup {

/// What is known of the bind DN and its password. Directories lock an account after a few refused
/// binds, so until a server has accepted these, one bind is under way at a time, and after a refusal
/// none for a while. Once accepted, a refusal is that server's own matter. Not synchronised: the
/// pool guards it.
class Credentials {
public:
    /// @param isNeeded  false: anonymous, every bind may be sent
    /// @param hold      how long none is sent after a refusal
    Credentials(bool isNeeded, Clock::duration hold) : m_isAccepted(!isNeeded), m_hold(hold) {}

    bool areAccepted() const { return m_isAccepted; }
    Clock::duration hold() const { return m_hold; }

    /// What a caller that wants to bind has to do.
    enum class Turn {
        bind,   ///< go on; report the outcome
        wait,   ///< for the outcome of another caller's bind
        refuse, ///< they were refused lately: `refusal`
    };
    Turn turn(Clock::time_point now) const;
    /// The verdict while none is sent.
    Verdict refusal(Clock::time_point now) const;
    /// The server to begin with: after a refusal, the one behind the server that refused.
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
    /// A server refused them with code 49.
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
