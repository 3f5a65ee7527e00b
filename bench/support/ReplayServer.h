// A directory that answers from memory: every bind is granted, every search gets the same answer.
#ifndef SOLVANE_BENCH_REPLAY_SERVER_H
#define SOLVANE_BENCH_REPLAY_SERVER_H

#include "Descriptor.h"
#include "LdapMessages.h"

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace SolvaneBench {

/// Entries as a server sends them, without the message ids.
class Answer {
public:
    void add(std::string const& dn, std::vector<SolvaneTest::Attribute> const& attributes);
    /// The bytes of all messages for one request.
    std::string messages(int messageId) const;

private:
    std::vector<std::string> m_operations;
};

/// Listens on a free port of 127.0.0.1; one thread serves all connections, however many.
class ReplayServer {
public:
    ReplayServer();
    ReplayServer(ReplayServer const&) = delete;
    ReplayServer& operator=(ReplayServer const&) = delete;
    ~ReplayServer();

    unsigned int port() const { return m_port; }
    std::string uri() const;
    /// What searches get from now on. Not while one is under way.
    void answer(Answer answer);

private:
    void serve();
    void accept();
    void receive(int socket);
    bool reply(int socket, std::string const& request);

    SolvaneTest::Descriptor m_listener;
    SolvaneTest::Descriptor m_stop; ///< an event; readable from the destructor's start
    SolvaneTest::Descriptor m_events;
    unsigned int m_port;
    std::mutex m_mutex;
    Answer m_answer; ///< guarded by m_mutex
    struct Client {
        explicit Client(int number) : socket(number) {}
        SolvaneTest::Descriptor socket;
        std::string pending; ///< received, but not yet a whole message
    };
    std::map<int, Client> m_clients; ///< the server thread's
    std::thread m_thread;
};

} // namespace SolvaneBench

#endif
