// The steps of opening a session.
#ifndef SOLVANE_SESSION_SRC_SESSION_STEPS_H
#define SOLVANE_SESSION_SRC_SESSION_STEPS_H

#include <solvane/session/Resolver.h>
#include <solvane/session/Session.h>

#include "Connector.h"
#include "Conversation.h"
#include "SaslExchange.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// Runs the steps in order, each with its own time limit. Each step produces what the next one
/// needs: resolve the addresses, connect the socket and the conversation on it, handshake the TLS
/// stream; startTls, bind and identify exchange messages. Not thread-safe.
///
/// `m_done` is the number of the steps completed, and so the current one; `m_target` where to stop.
/// A step is started once (`start`), then continued (`goOn`) until it is done, failed, or out of
/// time.
class Session::Steps : public NonCopyable {
public:
    explicit Steps(SessionOptions options);
    ~Steps();

    void begin(Step last, Clock::time_point deadline);
    void advance();
    void waits(Waits& waits) const;

    bool isSettled() const { return !m_isUnderWay; }
    Step step() const;
    bool isDone(Step step) const { return static_cast<int>(step) < m_done; }
    /// Good while nothing has failed.
    Verdict const& verdict() const { return m_verdict; }
    /// As `Session::receive`.
    /// @param parsesEntries  OpenLDAP parses entries too
    Received receive(Message& message, bool parsesEntries);
    /// Records the cause of a broken connection, unless an earlier failure is known.
    Verdict const& breakOff(char const* during);
    /// Null before the connect is done.
    Conversation* conversation() const { return m_conversation.get(); }
    /// Null without TLS.
    TlsStream const* tls() const
    {
        return m_conversation ? m_conversation->channel().tls() : nullptr;
    }
    /// The verdict of an unusable session: the cause, or that it is not connected.
    Verdict broken(char const* during) const;

    Verdict failure(Outcome outcome, int code, std::string const& text) const;

    SessionOptions const options;
    std::string const uri;
    std::vector<Address> addresses;
    std::string peer;
    Identity identity = Identity::Anonymous;
    std::string authorizationId;
    char const* request = "request"; ///< the last kind of request, for messages

private:
    /// Result of continuing a step.
    enum class Progress { waiting, done, failed };

    bool applies(Step step) const;
    Clock::time_point stepEnd() const
    {
        return std::min(m_deadline, m_stepStart + options.networkTimeout);
    }
    bool start(Step step);
    Progress goOn(Step step);
    Progress resolve();
    Progress connect();
    Progress connectToPath();
    Progress handshake();
    bool canUseTls();
    bool sendTlsRequest();
    bool startHandshake();
    bool startBind();
    bool startSimpleBind();
    bool startExternalBind();
    bool wasSent(int code, Outcome otherwise);
    bool wasBindSent(int code);
    bool startSaslBind();
    bool sendSaslRound();
    bool startIdentify();

    using Taking = Progress (Steps::*)(LDAPMessageBuffer& answer);
    Progress exchange(Taking take);
    Progress awaitAnswer(Message& answer);
    Progress takeTlsResponse(LDAPMessageBuffer& answer);
    Progress takeBindResponse(LDAPMessageBuffer& answer);
    Progress takeSaslResponse(LDAPMessageBuffer& answer, int code);
    Progress takeIdentity(LDAPMessageBuffer& answer);
    Progress fail(Outcome outcome, int code, std::string const& text);
    Progress failAs(Verdict const& verdict);
    Progress failInvalid();
    Progress failForTime(Step step);
    Progress failToConnect(bool lacksSocket, std::string const& why);
    Progress converse(Descriptor socket);

    int m_done = 0;   // steps done or skipped
    int m_target = 0; // steps requested
    bool m_isUnderWay = false;
    bool m_isStarted = false; // the current step
    Clock::time_point m_deadline;
    Clock::time_point m_stepStart;
    Verdict m_verdict;

    std::unique_ptr<Resolver> m_resolver;
    std::unique_ptr<Connector> m_connector;
    std::unique_ptr<PathConnector> m_pathConnector; // instead, with a socket's path
    std::unique_ptr<Conversation> m_conversation;
    int m_id = 0;                             // message id of the step's request
    std::unique_ptr<SaslExchange> m_exchange; // of a SASL bind under way
    int m_rounds = 0;                         // of it
};

} // namespace Solvane::Lookup

#endif
