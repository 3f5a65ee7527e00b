// An OpenLDAP session on a channel.
#ifndef SOLVANE_SESSION_SRC_CONVERSATION_H
#define SOLVANE_SESSION_SRC_CONVERSATION_H

#include <solvane/session/Session.h>

#include "Channel.h"

#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Lookup {

/// Sends requests with OpenLDAP and returns the messages that answer them; messages of abandoned
/// and unknown requests are dropped. The channel owns the socket; OpenLDAP only encodes and
/// decodes. Not thread-safe.
class Conversation : public NonCopyable {
public:
    /// @param version  of LDAP, 2 or 3
    Conversation(Descriptor socket, unsigned int version, std::size_t messageBytes,
                 std::chrono::milliseconds patience);
    /// Sends an unbind if the connection is intact and accepts it, and closes it.
    ~Conversation();

    Channel& channel() { return m_channel; }
    LDAP* handle() const { return m_handle; }
    /// Good while the connection can be used.
    Verdict const& fault() const { return m_channel.fault(); }

    // Requests. Each returns OpenLDAP's code, and on success the message id. They are buffered
    // until the channel is flushed.

    int startTls(int& id);
    /// @param asksForPolicy  requests the password policy control in the response
    int bind(std::string const& dn, std::string const& password, int& id,
             bool asksForPolicy = false);
    /// A round of a SASL bind.
    /// @param credentials  null data: none
    int saslBind(char const* mechanism, std::string_view credentials, int& id);
    int whoAmI(int& id);
    int search(SearchRequest const& request, std::string const& filter, int& id);
    /// Reads the root DSE without attributes. Every server answers this, so it proves that it is
    /// alive.
    int askForLife(int& id);
    void abandon(int id);
    /// Accepts the answers to a request that was sent by other code.
    void expect(int id) { m_awaited.push_back(id); }
    /// Whether a request is pending.
    bool isAwaiting() const { return !m_awaited.empty(); }

    /// Returns the next message of a request, without waiting.
    /// @param parsesEntries  makes OpenLDAP parse entries too; else they stay in the buffer
    Session::Received receive(Session::Message& message, bool parsesEntries);
    /// Size in bytes of the last message returned.
    std::size_t messageSize() const { return m_messageSize; }

private:
    void setOption(int option, int value);
    int sent(int code, int id);
    bool isAwaited(int id) const;
    void takeNotice();
    bool take(MessageFrame const& front, Session::Message& message, bool isLeft);
    bool parse(LDAPMessageBuffer& message);
    bool failInvalid();

    Channel m_channel;
    LDAP* m_handle = nullptr;
    std::vector<int> m_awaited;      // ids of pending requests, ascending
    int m_bindId = 0;                // of the last bind with a password
    std::vector<char*> m_attributes; // of the last search, null-terminated for OpenLDAP
    int m_deref = 0;                 // current option of the session
    int m_timeLimit = 0;
    std::size_t m_messageSize = 0;
};

} // namespace Solvane::Lookup

#endif
