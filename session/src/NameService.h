// A c-ares channel and the sockets that it waits on.
#ifndef SOLVANE_SESSION_SRC_NAME_SERVICE_H
#define SOLVANE_SESSION_SRC_NAME_SERVICE_H

#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include <optional>
#include <string>
#include <vector>

#define CARES_NO_DEPRECATED 1 // newer versions have other calls for the same; these work in all
#include <ares.h>

namespace Solvane::Lookup {

/// Asks name servers without blocking and without a thread. What is asked through `channel` is answered
/// from within `advance`, or from within the destructor.
class NameService : public NonCopyable {
public:
    /// @param servers  "address" or "address:port"; empty: the system's (/etc/resolv.conf)
    explicit NameService(std::vector<std::string> const& servers);
    ~NameService();

    /// Why it cannot be used, in words; empty if it can.
    std::string const& fault() const { return m_fault; }
    /// Whether memory ran out in a callback: what is asked may never be answered.
    bool lacksMemory() const { return m_lacksMemory; }
    ares_channel channel() const { return m_channel; }

    /// Reads and writes what can be, and repeats questions whose time is over.
    void advance();
    void waits(Waits& waits) const;

private:
    static void socketChanged(void* service, ares_socket_t socket, int reads, int writes);
    void setServers(std::vector<std::string> const& servers);

    ares_channel m_channel = nullptr;
    std::string m_fault;
    std::vector<pollfd> m_sockets;
    bool m_lacksMemory = false;
};

/// One question to a name service.
struct NameQuestion : public NonCopyable {
    /// What is still open is answered when the service goes, and must not be taken any more.
    ~NameQuestion() { isSettled = true; }

    void advance();
    void waits(Waits& waits) const;

    Verdict verdict;
    bool isSettled = false;
    /// Memory ran out while the answer was taken. An exception cannot pass through c-ares, so `advance`
    /// tells it.
    bool lacksMemory = false;
    std::optional<NameService> service; ///< none before the question is asked

private:
    bool hasFailed() const { return lacksMemory || service->lacksMemory(); }
};

} // namespace Solvane::Lookup

#endif
