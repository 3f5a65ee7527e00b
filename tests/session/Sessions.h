// Helpers for tests of sessions: options, results, and a man in the middle.
#ifndef SOLVANE_TESTS_SESSION_SESSIONS_H
#define SOLVANE_TESTS_SESSION_SESSIONS_H

#include "Descriptor.h"

#include <solvane/session/Session.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

namespace SolvaneTest {

constexpr char readerDn[] = "cn=reader,dc=corp,dc=test";
constexpr char people[] = "ou=people,dc=corp,dc=test";

/// The reader's password, for sessions to borrow.
extern std::string const readerPassword;

/// Deadlines: after a duration, and late enough not to matter.
Solvane::Lookup::Clock::time_point in(std::chrono::milliseconds time);
Solvane::Lookup::Clock::time_point soon();

/// Options of a session with 127.0.0.1, without a bind, with a network timeout of ten seconds.
Solvane::Lookup::SessionOptions plainOptions(unsigned int port);
/// The same with the reader's bind.
Solvane::Lookup::SessionOptions boundOptions(unsigned int port);
/// The same with TLS and no bind.
Solvane::Lookup::SessionOptions secureOptions(unsigned int port,
                                              Solvane::Lookup::TlsPolicy const& policy,
                                              std::string const& host = "127.0.0.1");
/// The same with StartTLS.
Solvane::Lookup::SessionOptions startTlsOptions(unsigned int port,
                                                Solvane::Lookup::TlsPolicy const& policy,
                                                std::string const& host = "127.0.0.1");
Solvane::Lookup::TlsPolicy policy(Solvane::Lookup::TlsVerify verify,
                                  std::string const& caFile = std::string());

/// What an OpenLDAP with GnuTLS has, and one with OpenSSL has not, such as priority strings: the text, or
/// nothing.
std::string ofGnuTls(std::string const& text);

/// While it exists, this process can open no further descriptor.
class NoDescriptors {
public:
    NoDescriptors();
    ~NoDescriptors();
    NoDescriptors(NoDescriptors const&) = delete;
    NoDescriptors& operator=(NoDescriptors const&) = delete;

private:
    rlimit m_before{};
};

/// A search among the people.
Solvane::Lookup::SearchRequest peopleSearch();

/// The verdict as text: outcome, code, message.
std::string shown(Solvane::Lookup::Verdict const& verdict);

/// A message and its id; null if the connection broke or none arrived within ten seconds.
struct Message {
    Solvane::LDAPMessageBuffer message;
    int id = 0;
    Solvane::Lookup::Session::Received received = Solvane::Lookup::Session::Received::nothing;
};

/// Waits for the next message.
std::unique_ptr<Message> next(Solvane::Lookup::Session& session);
/// The same; entries are left in the session's buffer.
Solvane::Lookup::Session::Received next(Solvane::Lookup::Session& session,
                                        Solvane::Lookup::Session::Message& message);
/// The types of the messages that arrive for `id`, up to the final one.
std::vector<int> typesFor(Solvane::Lookup::Session& session, int id);

/// A man in the middle, who may change what the server sends: listens on a free port of 127.0.0.1,
/// accepts one connection, and relays it to a server. The destructor closes both sides.
class Relay {
public:
    /// Gets what the server wrote at once and its number, from 1; returns what the client receives.
    using Change = std::function<std::string(std::string bytes, int number)>;

    /// @param drips  sends byte by byte
    Relay(unsigned int serverPort, Change change, bool drips = false);
    Relay(Relay const&) = delete;
    Relay& operator=(Relay const&) = delete;
    ~Relay();

    unsigned int port() const { return m_port; }

private:
    void relay();
    bool toClient(int client, std::string const& bytes) const;

    Descriptor m_listener;
    Descriptor m_stop; ///< an event; readable from the destructor's start
    unsigned int m_port;
    unsigned int m_serverPort;
    Change m_change;
    bool m_drips;
    std::thread m_thread;
};

} // namespace SolvaneTest

#endif
