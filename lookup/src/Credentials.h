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

    /// A caller is going to bind, where its turn is `bind`.
    void begin() { m_isUnderWay = !m_isAccepted; }
    /// A server accepted them.
    void accepted();
    /// A server refused them with code 49.
    void refused(std::size_t server, Verdict const& why, Clock::time_point now);
    /// The bind was not sent, or not answered.
    void leftOpen() { m_isUnderWay = false; }

private:
    bool m_isAccepted;
    Clock::duration m_hold;
    bool m_isUnderWay = false;
    bool m_wasRefused = false;
    std::size_t m_refusedBy = 0;
    Clock::time_point m_heldUntil;
    Verdict m_why;
};

} // namespace Solvane::Lookup

#endif
