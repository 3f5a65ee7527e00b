// A name server on loopback with the test's own records.
#ifndef SOLVANE_TESTS_SUPPORT_NAME_SERVER_H
#define SOLVANE_TESTS_SUPPORT_NAME_SERVER_H

#include "Descriptor.h"

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace SolvaneTest {

/// Answers queries for A, AAAA and SRV records on a free UDP port of 127.0.0.1. Unknown names do
/// not exist.
class NameServer {
public:
    NameServer();
    NameServer(NameServer const&) = delete;
    NameServer& operator=(NameServer const&) = delete;
    ~NameServer();

    /// Its address for settings: "127.0.0.1:5353".
    std::string address() const;

    /// A name and its addresses, IPv4 and IPv6.
    void add(std::string const& name, std::vector<std::string> const& addresses);
    /// A name and one server of the service.
    void addService(std::string const& name, unsigned int priority, unsigned int weight,
                    unsigned int port, std::string const& host);
    /// Stops answering.
    void fallSilent();
    /// Answers every query with this code (RFC 1035 section 4.1.1), for example 2 for a server
    /// failure.
    void fail(unsigned int code);
    /// Answers again as it should.
    void recover();

    /// The queried names, one for each query.
    std::vector<std::string> asked() const;

private:
    struct Record {
        unsigned int type;
        std::string content;
    };

    void serve();
    std::string answerTo(std::string const& question);

    Descriptor m_socket;
    Descriptor m_stop;
    unsigned int m_port;
    mutable std::mutex m_mutex;
    std::multimap<std::string, Record> m_records; ///< guarded by m_mutex
    std::vector<std::string> m_asked;             ///< guarded by m_mutex
    bool m_isSilent = false;                      ///< guarded by m_mutex
    unsigned int m_code = 0;                      ///< guarded by m_mutex; 0: as it is known
    std::thread m_thread;
};

} // namespace SolvaneTest

#endif
