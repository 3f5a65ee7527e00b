// Passes events of other threads to its own.
#include "Worker.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>

#include <utility>
#include <vector>

namespace Solvane::Service {

Worker::Worker(Environment& environment, std::function<std::string()> stats)
    : m_environment(environment), m_stats(std::move(stats)), m_work(m_context.get_executor()),
      m_lookups(m_context, environment)
{
}

void Worker::adopt(ClientKind kind, int descriptor)
{
    boost::asio::dispatch(m_context, [this, kind, descriptor] {
        auto const client = clientFor(kind, descriptor);
        client->start();
        if (m_isDraining) {
            client->drain();
        }
    });
}

std::shared_ptr<Client> Worker::clientFor(ClientKind kind, int descriptor)
{
    ClientGroup const group = {m_context, m_environment, m_lookups, m_clients};
    switch (kind) {
    case ClientKind::auth:
        return std::make_shared<AuthClient>(group, descriptor);
    case ClientKind::stats:
        return std::make_shared<StatsClient>(group, descriptor, m_stats);
    case ClientKind::socketmap:
        break;
    }
    return std::make_shared<SocketmapClient>(group, descriptor);
}

void Worker::use(std::shared_ptr<Maps> const& maps)
{
    boost::asio::post(m_context, [this, maps] { m_lookups.use(maps); });
}

void Worker::drain()
{
    boost::asio::post(m_context, [this] {
        m_isDraining = true;
        std::vector<std::shared_ptr<Client>> clients; // draining may end some
        for (Client* const client : m_clients) {
            clients.push_back(client->shared_from_this());
        }
        for (auto const& client : clients) {
            client->drain();
        }
    });
}

} // namespace Solvane::Service
