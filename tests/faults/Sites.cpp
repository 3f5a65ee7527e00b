// Scripts that answer correctly up to a point.
#include "Sites.h"

#include <numeric>

namespace SolvaneTest {

ServerSite::ServerSite(FaultyServer::Script script, unsigned int patience)
    : m_server(std::move(script)), m_patience(patience)
{
}

Target ServerSite::target()
{
    Target where;
    where.port = m_server.port();
    where.patience = m_patience;
    return where;
}

Target ServerSite::mended()
{
    m_server.mend();
    return target();
}

std::string ServerSite::violation()
{
    return m_server.wasAskedAnonymously() ? "asked on a connection that was not bound"
                                          : std::string();
}

Case serverCase(std::string const& name, FaultyServer::Script const& script,
                Accepted const& accepted, unsigned int patience)
{
    Case made;
    made.name = name;
    made.site = [script, patience] { return std::make_unique<ServerSite>(script, patience); };
    made.accepted = accepted;
    constexpr unsigned int waitsOfOneSecond = 10;
    made.limitSeconds = patience == 1 ? waitsOfOneSecond : made.limitSeconds;
    return made;
}

FaultyServer::Script serveUntil(Step step, Answer const& answer)
{
    return [=](FaultyServer::Peer& peer) {
        for (;;) {
            std::string const request = peer.receive();
            if (request.empty()) {
                return;
            }
            std::vector<std::string> const replies = repliesTo(request);
            // A connection that was opened in vain may be used after the mending.
            if (stepOf(request) == step && !peer.isMended()) {
                answer(peer, replies, request);
                return;
            }
            peer.send(joined(replies));
        }
    };
}

FaultyServer::Script serveWith(Step step,
                               std::function<std::string(std::string const& request)> const& answer)
{
    return [=](FaultyServer::Peer& peer) {
        for (;;) {
            std::string const request = peer.receive();
            if (request.empty()) {
                return;
            }
            bool const isFaulty = stepOf(request) == step && !peer.isMended();
            peer.send(isFaulty ? answer(request) : joined(repliesTo(request)));
        }
    };
}

std::vector<Step> stepsOf(Column column)
{
    std::vector<Step> steps;
    for (Reply const& reply : recordedReplies(column)) {
        if (steps.empty() || steps.back() != reply.step) {
            steps.push_back(reply.step);
        }
    }
    return steps;
}

char const* nameOf(Step step)
{
    constexpr char const* names[] = {"bind",   "who-am-i", "search", "add",       "modify",
                                     "delete", "compare",  "page",   "next page", "other"};
    return names[static_cast<int>(step)];
}

std::string joined(std::vector<std::string> const& pieces)
{
    return std::accumulate(pieces.begin(), pieces.end(), std::string());
}

Accepted exitStatuses(std::initializer_list<int> statuses)
{
    Accepted accepted;
    for (int const status : statuses) {
        accepted.insert("exit " + std::to_string(status));
    }
    return accepted;
}

Accepted alteredEntry(Column column)
{
    if (!isSearch(requestOf(column))) {
        return {};
    }
    switch (column) {
    case Column::tool:
        return {"exit 0 altered"};
    default:
        return {"found altered"};
    }
}

Accepted nobody(Column column)
{
    if (!isSearch(requestOf(column))) {
        return {};
    }
    switch (column) {
    case Column::stream:
        return {"found less", "not found"};
    case Column::engine:
    case Column::submit:
        return {"NotFound 0"};
    case Column::tool:
        return {"exit 1"};
    default:
        return {"not found"};
    }
}

} // namespace SolvaneTest
