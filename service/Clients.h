// The connections of clients. Each has bounds, so that one that is slow, silent or hostile costs only
// itself.
#ifndef SOLVANE_SERVICE_CLIENTS_H
#define SOLVANE_SERVICE_CLIENTS_H

#include "AuthSession.h"
#include "Lookups.h"
#include "Socketmap.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace Solvane::Service {

class Client;

/// What the clients of a thread have in common.
struct ClientGroup {
    boost::asio::io_context& context;
    Environment& environment;
    Lookups& lookups;
    std::unordered_set<Client*>& members; ///< all clients that exist
};

/// A client that was accepted. Closes its descriptor, and stops counting it, when it is destroyed.
class Accepted {
public:
    /// @param metrics  counts the client; must outlive it
    Accepted(int descriptor, Metrics& metrics);
    ~Accepted();
    Accepted(Accepted&& other) noexcept;
    Accepted& operator=(Accepted&& other) = delete;

    int descriptor() const { return m_descriptor; }
    /// The descriptor has another owner now.
    void release() { m_descriptor = -1; }

private:
    int m_descriptor;
    Metrics* m_metrics;
};

/// A connection. It is read while there is room for its requests; so one that sends more, or does not
/// read its replies, waits. It is closed when it is idle for `idleTime`: bytes of an incomplete
/// request do not count. It exists until its last request is answered, even if the client is gone, and
/// counts as a client until then. Not thread-safe.
class Client : public std::enable_shared_from_this<Client> {
public:
    /// @param accepted  a connected socket that does not block
    Client(ClientGroup const& group, Accepted accepted, std::chrono::seconds idleTime);
    virtual ~Client();
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    /// Begins to read and write.
    void start();
    /// Reads no more; closes the connection once its requests are answered.
    void drain();

protected:
    /// Takes bytes received; `serve` follows.
    virtual void received(std::string_view bytes) = 0;
    /// Serves what was received, as far as there is room.
    virtual void serve() = 0;
    /// Whether there is room for more requests.
    virtual bool hasRoom() const { return true; }
    /// Whether requests are under way.
    virtual bool isBusy() const { return false; }
    /// The idle time is over: whether the connection is to be closed.
    virtual bool isExpired() { return true; }

    void send(std::string_view bytes);
    /// The idle time begins anew.
    void touch() { m_idleUntil = std::chrono::steady_clock::now() + m_idleTime; }
    /// Serves, and reads if there is room; closes the connection if it is done. Call it after each
    /// answer.
    void proceed();
    /// The client broke the protocol.
    void breakOff(std::string const& fault);
    /// `proceed` closes the connection once everything is sent.
    void finish() { m_isDone = true; }
    bool isClosed() const { return m_isClosed; }
    std::size_t unsentBytes() const { return m_output.size() + m_writing.size(); }

    ClientGroup const m_group;

private:
    void close();
    void read();
    void write();
    void awaitIdleTime();

    Accepted m_accepted;
    boost::asio::posix::stream_descriptor m_socket;
    boost::asio::steady_timer m_timer;
    std::chrono::seconds const m_idleTime;
    std::chrono::steady_clock::time_point m_idleUntil;
    std::array<char, 8192> m_input{};
    std::string m_output;  ///< not being written yet
    std::string m_writing; ///< being written
    bool m_isReading = false;
    bool m_isWriting = false;
    bool m_takesNoMore = false; ///< requests: it has ended its side, or is being drained
    bool m_isDone = false;      ///< whatever is under way
    bool m_isClosed = false;
};

/// A client that asks for keys.
class SocketmapClient final : public Client {
public:
    SocketmapClient(ClientGroup const& group, Accepted accepted);

private:
    void received(std::string_view bytes) override { m_reader.add(bytes); }
    void serve() override;
    bool hasRoom() const override;
    bool isBusy() const override { return !m_replies.empty(); }
    void ask(std::string const& text);
    void answer(std::size_t number, Reply const& reply);

    NetstringReader m_reader{longestRequest};
    std::deque<std::optional<std::string>> m_replies; ///< in the order of the requests
    std::size_t m_firstNumber = 0;                    ///< of the first of m_replies
    std::size_t m_heldBytes = 0;                      ///< of replies that wait for an earlier one
    bool m_isServing = false;
};

/// A client that asks for logins. Once it has greeted, it is not closed when it is idle: Postfix keeps
/// the connection for its next client, whose login would fail.
class AuthClient final : public Client {
public:
    AuthClient(ClientGroup const& group, Accepted accepted);

private:
    void received(std::string_view bytes) override { m_session.add(bytes); }
    void serve() override;
    bool hasRoom() const override;
    bool isBusy() const override { return m_verifying != 0; }
    bool isExpired() override { return !m_session.hasVersion(); }
    void verify(AuthSession::Login const& login);
    AuthSession::Verdict judge(LoginAttempt const& attempt,
                               LDAPLookup::Verification const& verification);
    void log(LoginAttempt const& attempt, LDAPLookup::Verification const& verification);

    AuthSession m_session;
    std::size_t m_verifying = 0;
    bool m_isServing = false;
};

/// A client that reads metrics by HTTP: the answer to any request is all of them.
class StatsClient final : public Client {
public:
    /// @param text  returns the metrics
    StatsClient(ClientGroup const& group, Accepted accepted, std::function<std::string()> text);

private:
    void received(std::string_view bytes) override { m_request += bytes; }
    void serve() override;

    std::function<std::string()> const m_text;
    std::string m_request;
    bool m_isAnswered = false;
};

} // namespace Solvane::Service

#endif
