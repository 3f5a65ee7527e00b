// Passes events of other threads to its own.
#include "Worker.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>

#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace Solvane::Service {

Worker::Worker(Environment& environment, std::function<std::string()> stats)
    : m_environment(environment), m_stats(std::move(stats)), m_work(m_context.get_executor()),
      m_lookups(m_context, environment)
{
}

void Worker::adopt(ClientKind kind, Accepted accepted)
{
    boost::asio::dispatch(m_context, [this, kind, accepted = std::move(accepted)]() mutable {
        try {
            auto const client = clientFor(kind, std::move(accepted));
            client->start();
            if (m_isDraining) {
                client->drain();
            }
        } catch (std::exception const& fault) { // such as: the kernel has no memory to watch it
            m_environment.unserved.write(m_environment.log,
                                         std::string("cannot serve a client: ") + fault.what());
        }
    });
}

std::shared_ptr<Client> Worker::clientFor(ClientKind kind, Accepted accepted)
{
    ClientGroup const group = {m_context, m_environment, m_lookups, m_clients};
    switch (kind) {
    case ClientKind::auth:
        return std::make_shared<AuthClient>(group, std::move(accepted));
    case ClientKind::stats:
        return std::make_shared<StatsClient>(group, std::move(accepted), m_stats);
    case ClientKind::socketmap:
        break;
    }
    return std::make_shared<SocketmapClient>(group, std::move(accepted));
}

void Worker::use(std::shared_ptr<Maps> const& maps, Lookups::Queues queues)
{
    boost::asio::post(m_context, [this, maps, queues = std::move(queues)]() mutable {
        m_lookups.use(maps, std::move(queues));
    });
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
