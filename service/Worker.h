// A thread of the service: its event loop, its clients and its lookups.
#ifndef SOLVANE_SERVICE_WORKER_H
#define SOLVANE_SERVICE_WORKER_H

#include "Clients.h"
#include "Lookups.h"
#include "Maps.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <functional>
#include <memory>
#include <string>
#include <unordered_set>

namespace Solvane::Service {

/// What clients ask for.
enum class ClientKind { socketmap, auth, stats };

/// Serves clients in one thread. Functions marked so are thread-safe; the others belong to its thread.
class Worker {
public:
    /// @param environment  must outlive it
    /// @param stats        returns the metrics, in the thread of a worker that has clients for them
    Worker(Environment& environment, std::function<std::string()> stats);
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    boost::asio::io_context& context() { return m_context; }

    /// Serves until `stop`, in the calling thread.
    void run() { m_context.run(); }
    /// Ends `run`, whatever is under way. Thread-safe.
    void stop() { m_context.stop(); }
    /// Serves a client, or closes it if that is impossible. Thread-safe.
    void adopt(ClientKind kind, Accepted accepted);
    /// As those of `Lookups`; `use` is for later requests. Thread-safe.
    Lookups::Queues prepare(std::shared_ptr<Maps> const& maps) { return m_lookups.prepare(maps); }
    void use(std::shared_ptr<Maps> const& maps, Lookups::Queues queues);
    /// Takes no further requests, and closes clients once theirs are answered. Thread-safe.
    void drain();

private:
    std::shared_ptr<Client> clientFor(ClientKind kind, Accepted accepted);

    Environment& m_environment;
    std::function<std::string()> const m_stats;
    std::unordered_set<Client*> m_clients; // clients leave it, at the latest with the context
    boost::asio::io_context m_context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    Lookups m_lookups;
    bool m_isDraining = false;
};

} // namespace Solvane::Service

#endif
