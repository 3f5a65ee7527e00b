/// @file
/// One connection to a server, step by step, each bounded by a moment in time.
#ifndef SOLVANE_LOOKUP_DIRECTORY_SESSION_H
#define SOLVANE_LOOKUP_DIRECTORY_SESSION_H

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/Certificate.h>
#include <solvane/lookup/Export.h>

#include <solvane/ldap.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include <chrono>
#include <optional>
#include <string>

namespace Solvane::Lookup {

/// A connection on which each step says how it ended, instead of throwing. For one thread at a
/// time. In the order connect, bind, confirmIdentity, then requests. It owns its connection, which
/// others may share through `connection`.
class SOLVANE_LOOKUP_EXPORT DirectorySession {
public:
    /// Nothing is opened yet.
    /// @param server  whom to connect to; its network timeout bounds the connect and the TLS
    ///                handshake, each write, and the wait for the bind's answer
    /// @param host    the host as the user named it, which a certificate is compared with
    /// @param tls     how far a certificate is checked, where the server is secure
    DirectorySession(LDAPConnection::RefServer const& server, std::string const& host,
                     TlsPolicy const& tls);

    /// Opens the connection and, for a secure server, shakes hands and checks the certificate; no
    /// request has been sent then. A refused certificate is `Refused`, code -11, with what is wrong
    /// with it; an unreadable list of authorities `Misconfigured`, -9; a server that does not answer
    /// in time `TryLater`, -5; all else `TryLater`, -1. To be called once.
    Verdict connect(Clock::time_point deadline);

    /// Sends a simple bind and awaits its answer; the session keeps no copy of the password. An
    /// empty DN or password, which servers take as anonymous, and one with a NUL, where OpenLDAP
    /// would cut it, are `Misconfigured`, -9, and not sent.
    Verdict bind(std::string const& dn, std::string const& password, Clock::time_point deadline);

    /// Asks "Who am I?" (RFC 4532), and keeps the answer. `Refused` where the server says "anonymous"
    /// in spite of a bind; good, and `Unconfirmed`, where it does not know the question. Without a
    /// bind, good and still `Anonymous` where the server answers at all.
    Verdict confirmIdentity(Clock::time_point deadline);
    /// Whether the server is asked who we are: that needs version 3 of the protocol.
    bool speaksVersion3() const { return m_server->protocol == LDAPConnection::V3; }
    /// What `confirmIdentity` found.
    Identity identity() const { return m_identity; }
    /// The authorization identity that the server told, as "dn:cn=reader,dc=corp,dc=test".
    std::string const& authorizationId() const { return m_authorizationId; }

    /// Bounds each search: entries, and seconds that the server may take; 0 sets no bound.
    void limits(unsigned int entries, unsigned int seconds);

    /// Sends a search. A filter that OpenLDAP refuses is -7, and leaves the connection as it was;
    /// so is an empty one, which would find everything.
    /// @return the verdict; with a good one, `id` is the message id of its answers
    Verdict send(LDAPSearch::Parameter const& parameter, int& id);

    /// The next message of any request that was sent.
    /// @param message  receives it, and owns it then
    /// @param timeout  how long to wait at most; 0 takes what has come
    /// @return  its message id; 0: none in time; -1: the connection broke
    int receive(LDAPMessageBuffer& message, std::chrono::milliseconds timeout);

    /// Tells the server to stop answering a request; answers on their way are dropped.
    void abandon(int id);

    /// Whether an idle connection is as it was left: open, and with nothing to read. An idle one
    /// with something to read was closed, or told that it will be. False before connect().
    bool isFresh() const;

    /// A null handle before connect(), and where that failed.
    LDAPConnection& connection() { return m_connection; }
    /// The socket, to wait on; -1 where there is none.
    int descriptor() const;
    /// Text of the server's URI with the host as the user named it.
    std::string const& uri() const { return m_uri; }

    /// The version of TLS that is spoken, as OpenLDAP's TLS library writes it ("TLS1.3" of GnuTLS,
    /// "TLSv1.3" of OpenSSL); empty before connect() and without TLS.
    std::string tlsVersion() const;
    /// The cipher, likewise.
    std::string tlsCipher() const;
    /// What the server showed, also where it was refused.
    std::optional<Certificate> const& certificate() const { return m_certificate; }

private:
    bool isVerified() const;
    bool isOpen() const { return descriptor() != -1; }
    std::chrono::milliseconds allowed(Clock::time_point deadline) const;

    Verdict open(bool verifies, Clock::time_point deadline);
    void prepare(bool verifies, std::chrono::milliseconds limit);
    void verifyChain();
    Verdict judgeHandshake(Verdict const& failed, Clock::time_point deadline);
    Verdict checkName();
    void readCertificate();
    std::string tlsText(int option) const;

    Verdict sendBind(std::string const& dn, std::string const& password);
    Verdict await(int id, std::chrono::milliseconds limit, char const* step,
                  LDAPMessageBuffer& message);
    Verdict takeBindResponse(LDAPMessageBuffer& message);
    Verdict takeIdentity(LDAPMessageBuffer& message);

    Verdict failure(Outcome outcome, int code, std::string const& text) const;
    Verdict unusableAuthorities(std::string const& fault) const;
    Verdict brokeOff(char const* step) const;
    Verdict outOfTime(char const* step) const;

    LDAPConnection::RefServer m_server;
    LDAPConnection m_connection;
    std::string m_host;
    std::string m_uri;
    TlsPolicy m_tls;
    Identity m_identity = Identity::Anonymous;
    std::string m_authorizationId;
    std::optional<Certificate> m_certificate;
};

} // namespace Solvane::Lookup

#endif
