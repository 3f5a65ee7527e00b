// OpenLDAP's session on a channel.
#ifndef SOLVANE_SESSION_SRC_CONVERSATION_H
#define SOLVANE_SESSION_SRC_CONVERSATION_H

#include <solvane/session/Session.h>

#include "Channel.h"

#include <string>
#include <vector>

namespace Solvane::Lookup {

/// Makes requests with OpenLDAP, and gives its messages out as they come, each for a request that was
/// made here and not abandoned. The socket is the channel's; OpenLDAP only encodes and decodes.
class Conversation : public NonCopyable {
public:
    /// @param version  of LDAP, 2 or 3
    Conversation(Descriptor socket, unsigned int version, std::size_t messageBytes,
                 std::chrono::milliseconds patience);
    /// Sends an unbind if the connection is whole and takes it, and closes it.
    ~Conversation();

    Channel& channel() { return m_channel; }
    LDAP* handle() const { return m_handle; }
    /// Good while the conversation can go on.
    Verdict const& fault() const { return m_channel.fault(); }

    // Requests. Each returns OpenLDAP's code, and on 0 the message id; nothing is written before the
    // channel is flushed.

    int bind(std::string const& dn, std::string const& password, int& id);
    int whoAmI(int& id);
    int search(SearchRequest const& request, std::string const& filter, int& id);
    /// Asks for the root DSE without attributes: a question that every server answers in some way.
    int askForLife(int& id);
    void abandon(int id);
    /// Awaits the answer to a request that was made elsewhere.
    void expect(int id) { m_awaited.push_back(id); }

    /// The next message of a request, without waiting.
    /// @param parsesEntries  OpenLDAP parses entries too, and none is left in the buffer
    Session::Received receive(Session::Message& message, bool parsesEntries);
    /// Bytes of the message that was given out last.
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
    std::vector<int> m_awaited;      // ids of requests under way, ascending
    std::vector<char*> m_attributes; // of the last search, as OpenLDAP takes them
    int m_deref = 0;                 // as set
    int m_timeLimit = 0;
    std::size_t m_messageSize = 0;
};

} // namespace Solvane::Lookup

#endif
