// Reads what a socket has in one go.
#ifndef SOLVANE_SESSION_READ_AHEAD_H
#define SOLVANE_SESSION_READ_AHEAD_H

#include <solvane/ldap/RefCounted.h>

#include <functional>
#include <memory>

#include <lber.h>

namespace Solvane {

/// Bytes of a connection that were read before they were asked for. OpenLDAP reads each message in
/// two or three pieces; with these bytes at hand, one system call serves many messages.
///
/// The socket may then have nothing to read although the session has, so whoever polls it asks
/// `SocketGuard::hasBuffered` first.
class ReadAhead : public NonCopyable {
public:
    /// Reads from the socket as `recv` does: bytes, 0 at the end, -1 with errno.
    using Receive = std::function<ber_slen_t(char* bytes, ber_len_t length)>;

    ReadAhead();

    /// As many of `length` bytes as have come, 0 at the end, -1 with errno. A failure comes after the
    /// bytes that came before it.
    ber_slen_t read(char* bytes, ber_len_t length, Receive const& receive);
    bool hasBytes() const { return m_begin != m_end; }
    /// Forgets the bytes, as those of a connection that is gone.
    void forget();

private:
    ber_slen_t refill(char* bytes, ber_len_t length, Receive const& receive);
    ber_len_t take(char* bytes, ber_len_t length);

    std::unique_ptr<char[]> m_buffer;
    ber_len_t m_begin; // of what was read and not asked for yet
    ber_len_t m_end;
    int m_error; // errno that comes after it; else 0
};

} // namespace Solvane

#endif
