// A c-ares channel and its sockets.
#ifndef SOLVANE_SESSION_SRC_NAME_SERVICE_H
#define SOLVANE_SESSION_SRC_NAME_SERVICE_H

#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include <optional>
#include <string>
#include <vector>

#define CARES_NO_DEPRECATED 1 // newer versions deprecate calls that work in all versions
#include <ares.h>

namespace Solvane::Lookup {

/// Queries name servers without blocking and without a thread. Callbacks of queries on `channel`
/// run inside `advance` or the destructor. Not thread-safe.
class NameService : public NonCopyable {
public:
    /// @param servers  "address" or "address:port"; empty: the system's (/etc/resolv.conf)
    explicit NameService(std::vector<std::string> const& servers);
    ~NameService();

    /// Why it cannot be used; empty if it can.
    std::string const& fault() const { return m_fault; }
    /// Whether memory ran out in a callback: what is asked may never be answered.
    bool lacksMemory() const { return m_lacksMemory; }
    ares_channel channel() const { return m_channel; }
    /// The verdict of a query that ended with this status of c-ares, which is no success. c-ares
    /// reports a lack of descriptors as a server that refuses: it is told apart by trying.
    static Verdict failure(int status);

    /// Reads and writes without blocking, and resends queries that timed out.
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

/// A query to a name service.
struct NameQuestion : public NonCopyable {
    /// The destructor of the service answers open queries; this makes the callback ignore them.
    ~NameQuestion() { isSettled = true; }

    void advance();
    void waits(Waits& waits) const;

    Verdict verdict;
    bool isSettled = false;
    /// Memory ran out while the answer was taken. An exception cannot pass through c-ares, so
    /// `advance` tells it.
    bool lacksMemory = false;
    std::optional<NameService> service; ///< empty before the query is sent

private:
    bool hasFailed() const { return lacksMemory || service->lacksMemory(); }
};

} // namespace Solvane::Lookup

#endif
