// A directory that answers from memory: accepts every bind, returns the same answer to every search.
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

/// Listens on a free port of 127.0.0.1; one thread serves all connections.
class ReplayServer {
public:
    ReplayServer();
    ReplayServer(ReplayServer const&) = delete;
    ReplayServer& operator=(ReplayServer const&) = delete;
    ~ReplayServer();

    unsigned int port() const { return m_port; }
    std::string uri() const;
    /// Sets the answer to searches. Do not call it during a search.
    void answer(Answer answer);

private:
    void serve();
    void accept();
    void receive(int socket);
    bool reply(int socket, std::string const& request);

    SolvaneTest::Descriptor m_listener;
    SolvaneTest::Descriptor m_stop; ///< an event; the destructor makes it readable
    SolvaneTest::Descriptor m_events;
    unsigned int m_port;
    std::mutex m_mutex;
    Answer m_answer; ///< guarded by m_mutex
    struct Client {
        explicit Client(int number) : socket(number) {}
        SolvaneTest::Descriptor socket;
        std::string pending; ///< received part of a message
    };
    std::map<int, Client> m_clients; ///< used only by the server thread
    std::thread m_thread;
};

/// Entries of people with seven values each, about 315 bytes per message.
inline Answer peopleEntries(unsigned long count)
{
    Answer answer;
    for (unsigned long i = 0; i < count; ++i) {
        std::string const number = std::to_string(1000000 + i);
        std::string const uid = "user" + number;
        answer.add("uid=" + uid + ",ou=people,dc=corp,dc=test",
                   {{"objectClass", {"inetOrgPerson"}},
                    {"uid", {uid}},
                    {"cn", {"Greta Holm " + number}},
                    {"sn", {"Holm"}},
                    {"givenName", {"Greta"}},
                    {"employeeNumber", {number}},
                    {"mail", {uid + "@corp.test", "greta." + number + "@alias.corp.test"}}});
    }
    return answer;
}

} // namespace SolvaneBench

#endif
