// Dovecot's authentication protocol, as Postfix and Exim speak it to check SMTP logins.
#ifndef SOLVANE_SERVICE_AUTH_SESSION_H
#define SOLVANE_SERVICE_AUTH_SESSION_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Lookup {
struct Verification;
} // namespace Solvane::Lookup

namespace Solvane::Service {

/// Owns a password; the destructor overwrites it.
class Password {
public:
    Password() { m_text.reserve(shortest); }
    explicit Password(std::string_view text);
    Password(Password&& other) noexcept = default; // the heap's bytes change their owner
    Password& operator=(Password&& other) = delete;
    ~Password();

    std::string const& text() const { return m_text; }

private:
    static constexpr std::size_t shortest = 64; ///< bytes reserved, so that they are on the heap

    std::string m_text;
};

/// One connection of a mail server, from the greeting on: takes the bytes received, and returns
/// logins to verify and bytes to send. Pure: does no input or output. Each login moves through these
/// states:
///
///     AUTH --no initial response--> asked (CONT sent) --CONT--> verifying --conclude--> gone
///       |                               ^  |                       ^   |
///       |                               +--+ (name, then password) |   +--CANCEL--> gone
///       +--initial response is complete----------------------------+
///
/// A mail server need not cancel the logins that its clients abandon. So a login that was asked is
/// forgotten if there would be more than `mostLogins` otherwise, the oldest first.
///
/// Not thread-safe.
class AuthSession {
public:
    /// What `conclude` does when the password could not be verified.
    enum class Trouble {
        close, ///< ends the connection: Postfix says 454, Exim 435
        fail,  ///< FAIL with "temp", which others know: Postfix and Exim say 535
    };

    /// What differs between sessions.
    struct Options {
        unsigned long process = 0;    ///< SPID
        unsigned long connection = 0; ///< CUID, of its own for each session
        std::string cookie;           ///< hexadecimal
        bool needsSecured = true;     ///< refuses logins without "secured"
        Trouble trouble = Trouble::close;
        std::size_t mostLogins = 16; ///< at the same time; with more being verified, it is over
    };

    /// A login whose password is to be verified.
    struct Login {
        std::uint64_t number; ///< for `conclude`
        std::string user;
        Password password;
        std::string remoteAddress; ///< of the client of the mail server; may be empty
    };

    /// The result of a login.
    struct Verdict {
        /// What the mail server is told.
        enum class Kind { accepted, denied, tryLater };
        Kind kind = Kind::tryLater;
        char const* code = ""; ///< Dovecot's word for why it is denied; may be empty
    };

    explicit AuthSession(Options options);
    ~AuthSession();
    AuthSession(AuthSession const&) = delete;
    AuthSession& operator=(AuthSession const&) = delete;

    /// Takes bytes received. The caller overwrites its own copy.
    void add(std::string_view bytes);
    /// The next login to verify.
    std::optional<Login> nextLogin();
    /// Answers a login; ignored if it was cancelled.
    void conclude(std::uint64_t number, Verdict verdict);
    /// The bytes to send; each is returned once.
    std::string takeOutput();
    /// Whether the connection is to be closed, without sending more.
    bool isOver() const { return m_isOver; }
    /// Why the peer broke the protocol; empty if it did not. One line.
    std::string const& fault() const { return m_fault; }
    /// The number of logins that are neither answered nor cancelled.
    std::size_t pending() const { return m_exchanges.size(); }

    static constexpr std::size_t longestLine = 16384; ///< bytes

private:
    using Fields = std::vector<std::string_view>;

    /// A login that has begun.
    struct Exchange {
        bool isLogin = false;     ///< mechanism LOGIN, not PLAIN
        std::string user;         ///< of LOGIN, once it is known
        bool hasUser = false;     ///< whether it is
        std::uint64_t number = 0; ///< not 0: the password is being verified
        std::uint64_t begun = 0;  ///< in the order of AUTH
        std::string remoteAddress;
    };
    using Exchanges = std::map<std::uint32_t, Exchange>;

    void takeLine(std::string_view line);
    void takeVersion(Fields const& fields);
    void begin(Fields const& fields);
    void goOn(Fields const& fields);
    void cancel(Fields const& fields);
    bool makeRoom();
    void respond(Exchanges::iterator exchange, std::string_view base64);
    void respondPlain(Exchanges::iterator exchange, std::string_view message);
    void verify(Exchanges::iterator exchange, std::string user, std::string_view password);
    void ask(std::uint32_t id, char const* challenge);
    void fail(std::uint32_t id, std::string const& user, std::string const& more);
    void refuse(Exchanges::iterator exchange, char const* reason);
    void breakOff(std::string const& fault);

    Options const m_options;
    std::string m_input; ///< the line that is not complete; reserved once
    std::string m_output;
    std::string m_fault;
    Exchanges m_exchanges;
    std::list<Login> m_logins;
    std::uint64_t m_lastNumber = 0;
    std::uint64_t m_lastBegun = 0;
    bool m_hasVersion = false;
    bool m_isOver = false;
};

/// The verdict on a login, by the outcome of its verification:
///
/// | outcome                          | verdict  | code                              |
/// |----------------------------------|----------|-----------------------------------|
/// | Accepted                         | accepted |                                   |
/// | Denied                           | denied   | `pass_expired` or `user_disabled` |
/// | NotFound, Skipped, BadKey        | denied   |                                   |
/// | TryLater, Refused, Misconfigured | tryLater |                                   |
AuthSession::Verdict verdictOn(Lookup::Verification const& verification);

/// Text as a field of the protocol, and back.
std::string escaped(std::string_view text);
/// Empty if an escape sequence is unknown or incomplete.
std::optional<std::string> unescaped(std::string_view field);

} // namespace Solvane::Service

#endif
