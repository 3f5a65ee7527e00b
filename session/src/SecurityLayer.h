// The security layer of a SASL bind, on a plain connection.
#ifndef SOLVANE_SESSION_SRC_SECURITY_LAYER_H
#define SOLVANE_SESSION_SRC_SECURITY_LAYER_H

#include <solvane/session/Verdict.h>

#include <solvane/ldap/RefCounted.h>

#include "SaslExchange.h"
#include "Socket.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace Solvane::Lookup {

/// Signs or encrypts all bytes after the bind, in packets that begin with their length (RFC 4422
/// section 3.7). Not thread-safe.
class SecurityLayer : public NonCopyable {
public:
    /// @param exchange  complete, with a layer
    /// @param socket    borrowed; must outlive the layer
    /// @param received  bytes that arrived behind the bind's response
    SecurityLayer(std::unique_ptr<SaslExchange> exchange, Socket& socket,
                  std::string_view received);

    /// As `Socket::receive`, for decoded bytes.
    Flow receive(char* bytes, std::size_t room, std::size_t& count);
    /// As `Socket::send`. After `blocked`, or when nothing was counted, pass the same bytes again;
    /// more may follow them.
    Flow send(char const* bytes, std::size_t length, std::size_t& count);
    /// Whether `receive` may return input that poll on the socket does not report.
    bool hasPending() const;
    /// Whether any input, even of an incomplete packet, has not been returned.
    bool hasInput() const { return m_begin != m_packets.size() || !m_decoded.empty(); }

    /// The cause of the failure; good unless `failed` was returned and the socket is intact.
    Verdict const& fault() const { return m_fault; }

private:
    bool decodeNext();
    bool encode(char const* bytes, std::size_t length);
    std::size_t packetLength() const;

    std::unique_ptr<SaslExchange> m_exchange;
    Socket& m_socket;
    Verdict m_fault;

    std::string m_packets;      // received
    std::size_t m_begin = 0;    // of the first packet not yet decoded
    std::string_view m_decoded; // not yet returned; in the exchange's buffer

    std::string m_encoded;     // to be written
    std::size_t m_written = 0; // bytes of it
    std::size_t m_covered = 0; // how many bytes of the caller it holds
};

} // namespace Solvane::Lookup

#endif
