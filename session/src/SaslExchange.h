// A bind by SASL GSSAPI, as the client.
#ifndef SOLVANE_SESSION_SRC_SASL_EXCHANGE_H
#define SOLVANE_SESSION_SRC_SASL_EXCHANGE_H

#include <solvane/session/Verdict.h>

#include <solvane/ldap/RefCounted.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sasl_conn;

namespace Solvane::Lookup {

/// The rounds of a bind by GSSAPI (RFC 4752) with Cyrus SASL, and the security layer that they agree
/// on. The Kerberos library may ask a KDC in `start`, and blocks meanwhile. Not thread-safe.
class SaslExchange : public NonCopyable {
public:
    static constexpr char mechanism[] = "GSSAPI";
    /// Size in bytes of the largest packet accepted from the server.
    static constexpr std::size_t largestPacket = 65536;
    /// Bytes of the length before each packet (RFC 4422 section 3.7).
    static constexpr std::size_t lengthBytes = 4;

    /// @param host             as configured; the service is "ldap/HOST"
    /// @param authorizationId  empty: the server chooses
    /// @param mayProtect       accepts a security layer; false where TLS protects already
    /// @param channelBinding   of TLS, with its type; empty: none. The server verifies it if it wants
    SaslExchange(std::string const& host, std::string authorizationId, bool mayProtect,
                 std::string channelBinding = std::string());
    ~SaslExchange();

    /// Produces the first credentials. False: see `fault`.
    bool start();
    /// Takes the server's credentials and produces the next ones. False: see `fault`.
    bool answer(std::string_view serverCredentials);
    /// Takes what the server sent with its success; true if the exchange is complete, and the server
    /// has proved its identity.
    bool end(std::string_view serverCredentials);
    /// To send; valid until the next call. Null data: none.
    std::string_view credentials() const { return m_credentials; }
    Verdict const& fault() const { return m_fault; }

    // The security layer, after `end`

    /// Whether all further bytes must be encoded and decoded.
    bool hasLayer() const;
    /// How many bytes `encode` takes at once.
    std::size_t largestInput() const;
    /// @param result  valid until the next call of the same function
    /// @return false if it is impossible, or the packet is forged; see `fault`
    bool encode(std::string_view bytes, std::string_view& result);
    bool decode(std::string_view packet, std::string_view& result);

private:
    struct Dispose {
        void operator()(sasl_conn* connection) const;
    };
    struct Borrowed; // by Cyrus SASL

    bool prepare();
    bool take(int code, char const* credentials, unsigned int length, bool isFirst);
    bool fail(Outcome outcome, int code, std::string const& text);
    bool failFirst(int code);
    bool isNext(std::string_view token);
    std::string words(int code) const;

    std::string m_host;
    std::string m_authorizationId;
    bool m_mayProtect;
    std::string m_channelBinding;
    std::unique_ptr<Borrowed> m_borrowed;
    std::unique_ptr<sasl_conn, Dispose> m_connection;
    bool m_isComplete = false;               // on this side
    std::optional<std::uint64_t> m_sequence; // number of the server's last token
    std::string_view m_credentials;
    Verdict m_fault;
};

} // namespace Solvane::Lookup

#endif
