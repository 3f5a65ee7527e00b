// Reads requests and writes replies.
#include "Clients.h"

#include <solvane/session/PlainText.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

#include <fmt/format.h>

#include <atomic>
#include <random>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace Solvane::Service {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds statsTime(10);     ///< for a request of metrics
constexpr std::size_t longestStatsRequest = 8192; ///< bytes

AuthSession::Options authOptions(ServiceSettings const& settings)
{
    static std::atomic<unsigned long> connections{0};
    std::random_device random;
    AuthSession::Options options;
    options.process = static_cast<unsigned long>(getpid());
    options.connection = ++connections;
    for (int i = 0; i < 4; ++i) {
        options.cookie += fmt::format("{:08x}", random());
    }
    options.needsSecured = settings.authNeedsTls;
    options.trouble = settings.authTrouble;
    options.mostLogins = settings.clientRequests;
    return options;
}

/// What an outcome means for the limits: names that cannot exist are not guessed.
LoginLimits::Result resultOf(LDAPLookup::VerifyOutcome outcome)
{
    switch (outcome) {
    case LDAPLookup::VerifyOutcome::Accepted:
        return LoginLimits::Result::accepted;
    case LDAPLookup::VerifyOutcome::Denied:
    case LDAPLookup::VerifyOutcome::NotFound:
        return LoginLimits::Result::denied;
    case LDAPLookup::VerifyOutcome::Skipped:
    case LDAPLookup::VerifyOutcome::BadKey:
    case LDAPLookup::VerifyOutcome::TryLater:
    case LDAPLookup::VerifyOutcome::Refused:
    case LDAPLookup::VerifyOutcome::Misconfigured:
        break;
    }
    return LoginLimits::Result::unanswered;
}

} // namespace

// All clients

Accepted::Accepted(int descriptor, Metrics& metrics) : m_descriptor(descriptor), m_metrics(&metrics)
{
    ++metrics.clients;
}

Accepted::~Accepted()
{
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
    }
    if (m_metrics != nullptr) {
        --m_metrics->clients;
    }
}

Accepted::Accepted(Accepted&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1)),
      m_metrics(std::exchange(other.m_metrics, nullptr))
{
}

Client::Client(ClientGroup const& group, Accepted accepted, std::chrono::seconds idleTime)
    : m_group(group), m_accepted(std::move(accepted)),
      m_socket(group.context, m_accepted.descriptor()), m_timer(group.context), m_idleTime(idleTime)
{
    m_accepted.release();
    int const on = 1; // ends the connection of a host that is gone; nothing happens on UNIX sockets
    setsockopt(m_socket.native_handle(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    m_group.members.insert(this);
}

Client::~Client()
{
    m_group.members.erase(this);
    explicit_bzero(m_input.data(), m_input.size()); // it may have a password
}

void Client::start()
{
    touch();
    awaitIdleTime();
    proceed();
}

void Client::drain()
{
    m_takesNoMore = true;
    proceed();
}

void Client::proceed()
{
    if (!m_isClosed) {
        serve();
    }
    if (m_isClosed) {
        return;
    }
    if (m_isDone || (m_takesNoMore && !isBusy())) {
        if (!m_isWriting) {
            close();
        }
    } else if (!m_takesNoMore && !m_isReading && hasRoom()) {
        read();
    }
}

void Client::read()
{
    m_isReading = true;
    m_socket.async_read_some(boost::asio::buffer(m_input),
                             [this, self = shared_from_this()](
                                 boost::system::error_code const& error, std::size_t size) {
                                 m_isReading = false;
                                 if (m_isClosed) {
                                     return;
                                 }
                                 if (error == boost::asio::error::eof) {
                                     m_takesNoMore = true;
                                 } else if (error) {
                                     close();
                                     return;
                                 }
                                 if (!m_takesNoMore) {
                                     received({m_input.data(), size});
                                 }
                                 explicit_bzero(m_input.data(), size); // it may have had a password
                                 proceed();
                             });
}

void Client::send(std::string_view bytes)
{
    if (m_isClosed || bytes.empty()) {
        return;
    }
    m_output += bytes;
    if (!m_isWriting) {
        write();
    }
}

void Client::write()
{
    m_isWriting = true;
    m_writing = std::exchange(m_output, std::string());
    boost::asio::async_write(
        m_socket, boost::asio::buffer(m_writing),
        [this, self = shared_from_this()](boost::system::error_code const& error, std::size_t) {
            m_isWriting = false;
            if (m_isClosed) {
                return;
            }
            if (error) {
                close();
                return;
            }
            m_writing.clear();
            touch();
            if (!m_output.empty()) {
                write();
            }
            proceed();
        });
}

void Client::breakOff(std::string const& fault)
{
    ++m_group.environment.metrics.broken;
    m_group.environment.broken.write(m_group.environment.log, "closed a client: " + fault);
    close();
}

void Client::close()
{
    if (!m_isClosed) {
        m_isClosed = true;
        boost::system::error_code ignored;
        m_socket.close(ignored);
        m_timer.cancel();
    }
}

/// A client with requests under way is not idle; they have a deadline of their own.
void Client::awaitIdleTime()
{
    m_timer.expires_at(m_idleUntil);
    m_timer.async_wait([this, self = shared_from_this()](boost::system::error_code const& error) {
        if (error || m_isClosed) {
            return;
        }
        if (isBusy() && !m_isWriting) {
            touch();
        }
        if (Clock::now() >= m_idleUntil && !m_isWriting && !isExpired()) {
            touch();
        }
        if (Clock::now() < m_idleUntil) {
            awaitIdleTime();
        } else {
            close();
        }
    });
}

// Keys

SocketmapClient::SocketmapClient(ClientGroup const& group, Accepted accepted)
    : Client(group, std::move(accepted), group.lookups.settings().idleTime)
{
}

bool SocketmapClient::hasRoom() const
{
    return m_replies.size() < m_group.lookups.settings().clientRequests &&
           unsentBytes() + m_heldBytes < longestReply;
}

void SocketmapClient::serve()
{
    if (m_isServing) {
        return; // an answer was there at once
    }
    m_isServing = true;
    while (!isClosed() && hasRoom()) {
        auto const text = m_reader.next();
        if (!text) {
            break;
        }
        ask(*text);
    }
    m_isServing = false;
    if (!isClosed() && m_reader.isMalformed()) {
        breakOff("it sent a malformed netstring");
    }
}

void SocketmapClient::ask(std::string const& text)
{
    touch();
    m_replies.emplace_back();
    std::size_t const number = m_firstNumber + m_replies.size() - 1;
    auto const request = requestOf(text);
    if (!request) {
        answer(number, Reply::tryLater("the request has no key"));
        return;
    }
    m_group.lookups.find(*request, [this, self = shared_from_this(), number](Reply const& reply) {
        answer(number, reply);
    });
}

void SocketmapClient::answer(std::size_t number, Reply const& reply)
{
    m_replies[number - m_firstNumber] = netstring(reply.text);
    m_heldBytes += m_replies[number - m_firstNumber]->size();
    while (!m_replies.empty() && m_replies.front()) {
        m_heldBytes -= m_replies.front()->size();
        send(*m_replies.front());
        m_replies.pop_front();
        ++m_firstNumber;
    }
    proceed();
}

// Logins

AuthClient::AuthClient(ClientGroup const& group, Accepted accepted)
    : Client(group, std::move(accepted), group.lookups.settings().idleTime),
      m_session(authOptions(group.lookups.settings()))
{
}

/// Logins that were cancelled count until they are answered, as the directory is still asked.
bool AuthClient::hasRoom() const
{
    return m_verifying < m_group.lookups.settings().clientRequests &&
           unsentBytes() < AuthSession::longestLine;
}

void AuthClient::serve()
{
    if (m_isServing) {
        return;
    }
    m_isServing = true;
    while (m_verifying < m_group.lookups.settings().clientRequests) {
        auto const login = m_session.nextLogin();
        if (!login) {
            break;
        }
        verify(*login);
    }
    m_isServing = false;
    send(m_session.takeOutput());
    if (!m_session.fault().empty()) {
        breakOff(m_session.fault());
    } else if (m_session.isOver()) {
        finish();
    }
}

void AuthClient::verify(AuthSession::Login const& login)
{
    LoginLimits& limits = m_group.environment.limits;
    auto const attempt = std::make_shared<LoginAttempt>();
    attempt->user = login.user;
    attempt->address = login.remoteAddress;
    if (!limits.admits(*attempt, Clock::now())) {
        ++m_group.environment.metrics.limitedLogins;
        m_session.conclude(login.number, AuthSession::Verdict());
        return;
    }
    ++m_verifying;
    m_group.lookups.verify(
        login.user, login.password.text(),
        [&limits, attempt](std::string const& dn) {
            return limits.admitsBind(*attempt, dn, Clock::now());
        },
        [this, self = shared_from_this(), attempt,
         number = login.number](LDAPLookup::Verification const& verification) {
            --m_verifying;
            m_session.conclude(number, judge(*attempt, verification));
            proceed();
        });
}

/// Counts and logs the result of a login.
AuthSession::Verdict AuthClient::judge(LoginAttempt const& attempt,
                                       LDAPLookup::Verification const& verification)
{
    Environment& environment = m_group.environment;
    bool const isAtLimit =
        environment.limits.conclude(attempt, resultOf(verification.outcome), Clock::now());
    if (isAtLimit) {
        environment.log.write(Log::Level::warning,
                              fmt::format("too many refused logins: {} from {}",
                                          brief(attempt.user), brief(attempt.address)));
    }
    if (attempt.isLimited) {
        ++environment.metrics.limitedLogins;
    } else {
        ++environment.metrics.logins[static_cast<std::size_t>(verification.outcome)];
        environment.metrics.loginLatency.add(verification.milliseconds);
    }
    if (m_group.lookups.settings().logsRequests) {
        log(attempt, verification);
    }
    return verdictOn(verification);
}

void AuthClient::log(LoginAttempt const& attempt, LDAPLookup::Verification const& verification)
{
    m_group.environment.log.write(
        Log::Level::info,
        fmt::format("login of {} from {}: {}{}{}", brief(attempt.user), brief(attempt.address),
                    attempt.isLimited ? "not tried" : name(verification.outcome),
                    verification.text.empty() || attempt.isLimited ? "" : ", ",
                    attempt.isLimited ? "" : brief(verification.text, longestServerText)));
}

// Metrics

StatsClient::StatsClient(ClientGroup const& group, Accepted accepted,
                         std::function<std::string()> text)
    : Client(group, std::move(accepted), statsTime), m_text(std::move(text))
{
}

void StatsClient::serve()
{
    if (m_isAnswered) {
        return;
    }
    bool const isComplete = m_request.find("\r\n\r\n") != std::string::npos ||
                            m_request.find("\n\n") != std::string::npos;
    if (isComplete) {
        m_isAnswered = true;
        std::string const text = m_text();
        send(fmt::format("HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"
                         "Content-Length: {}\r\nConnection: close\r\n\r\n{}",
                         text.size(), text));
        finish();
    } else if (m_request.size() > longestStatsRequest) {
        breakOff("its request for metrics is too long");
    }
}

} // namespace Solvane::Service
