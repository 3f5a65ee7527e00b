// Packets of the security layer.
#include "SecurityLayer.h"

#include "OpenLDAP.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace Solvane::Lookup {

namespace {

constexpr std::size_t readAtOnce = 16384;

} // namespace

SecurityLayer::SecurityLayer(std::unique_ptr<SaslExchange> exchange, Socket& socket,
                             std::string_view received)
    : m_exchange(std::move(exchange)), m_socket(socket), m_packets(received)
{
}

// Input

Flow SecurityLayer::receive(char* bytes, std::size_t room, std::size_t& count)
{
    count = 0;
    while (m_decoded.empty()) {
        if (decodeNext()) {
            continue;
        }
        if (!m_fault.isGood()) {
            return Flow::failed;
        }
        m_packets.erase(0, m_begin);
        m_begin = 0;
        std::size_t const known = m_packets.size();
        std::size_t received = 0;
        m_packets.resize(known + readAtOnce);
        Flow const flow = m_socket.receive(&m_packets[known], readAtOnce, received);
        m_packets.resize(known + received);
        if (flow != Flow::moved) {
            return flow;
        }
    }
    count = std::min(room, m_decoded.size());
    std::memcpy(bytes, m_decoded.data(), count);
    m_decoded.remove_prefix(count);
    return Flow::moved;
}

/// The length that the next packet announces; 0 while its beginning is missing.
std::size_t SecurityLayer::packetLength() const
{
    if (m_packets.size() - m_begin < SaslExchange::lengthBytes) {
        return 0;
    }
    std::size_t length = 0;
    for (std::size_t i = 0; i < SaslExchange::lengthBytes; ++i) {
        length = length << CHAR_BIT | static_cast<unsigned char>(m_packets[m_begin + i]);
    }
    return length + SaslExchange::lengthBytes;
}

bool SecurityLayer::hasPending() const
{
    std::size_t const length = packetLength();
    bool const isForged = length > SaslExchange::largestPacket + SaslExchange::lengthBytes;
    return !m_decoded.empty() ||
           (length != 0 && (isForged || length <= m_packets.size() - m_begin));
}

/// Decodes the packet in front. False: it is incomplete or forged.
bool SecurityLayer::decodeNext()
{
    std::size_t const length = packetLength();
    if (length > SaslExchange::largestPacket + SaslExchange::lengthBytes) {
        m_fault = Verdict{Outcome::TryLater, LDAP_DECODING_ERROR,
                          "the server sent data that is not protected as agreed: a packet of " +
                              std::to_string(length - SaslExchange::lengthBytes) + " bytes"};
        return false;
    }
    if (length == 0 || length > m_packets.size() - m_begin) {
        return false;
    }
    std::string_view const packet(m_packets.data() + m_begin, length);
    m_begin += length;
    if (!m_exchange->decode(packet, m_decoded)) {
        m_fault = m_exchange->fault();
    } else if (m_decoded.empty()) { // or a server could keep us busy with them
        m_fault =
            Verdict{Outcome::TryLater, LDAP_DECODING_ERROR, "the server sent an empty packet"};
    }
    return m_fault.isGood();
}

// Output

Flow SecurityLayer::send(char const* bytes, std::size_t length, std::size_t& count)
{
    count = 0;
    if (m_covered == 0 && !encode(bytes, length)) {
        return Flow::failed;
    }
    std::size_t written = 0;
    Flow const flow =
        m_socket.send(m_encoded.data() + m_written, m_encoded.size() - m_written, written);
    m_written += written;
    if (flow == Flow::moved && m_written == m_encoded.size()) {
        count = m_covered;
        m_covered = 0;
    }
    return flow;
}

bool SecurityLayer::encode(char const* bytes, std::size_t length)
{
    std::size_t const taken = std::min(length, m_exchange->largestInput());
    std::string_view encoded;
    if (taken == 0) {
        m_fault = Verdict{Outcome::TryLater, LDAP_DECODING_ERROR, "the server accepts no requests"};
        return false;
    }
    if (!m_exchange->encode({bytes, taken}, encoded)) {
        m_fault = m_exchange->fault();
        return false;
    }
    m_encoded = encoded;
    m_written = 0;
    m_covered = taken;
    return true;
}

} // namespace Solvane::Lookup
