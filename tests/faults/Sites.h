// Sites that several kinds of fault share: a faulty server, and scripts for it.
#ifndef SOLVANE_TESTS_FAULTS_SITES_H
#define SOLVANE_TESTS_FAULTS_SITES_H

#include "Fault.h"
#include "FaultyServer.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace SolvaneTest {

/// What a damaged connection waits for the next request before it is closed: a client that waits for
/// the rest of a message must not have to wait until its own time is over.
constexpr std::chrono::milliseconds shortly{40};

/// A server that plays a script until it is mended.
class ServerSite : public Site {
public:
    ServerSite(FaultyServer::Script script, unsigned int patience);
    Target target() override;
    Target mended() override;
    std::string violation() override;

protected:
    FaultyServer m_server;
    unsigned int m_patience;
};

/// A healthy server; it is this process that has a fault.
class HealthySite : public Site {
public:
    explicit HealthySite(unsigned int port) { m_where.port = port; }
    Target target() override { return m_where; }
    Target mended() override { return m_where; }

protected:
    Target m_where;
};

/// The case of a server that plays a script.
Case serverCase(std::string const& name, FaultyServer::Script const& script,
                Accepted const& accepted, unsigned int patience = 10);

/// Answers requests as a server without faults does, except the first one of `step`, which `answer`
/// answers: it is given what should be sent, and the connection is closed when it returns.
using Answer = std::function<void(FaultyServer::Peer&, std::vector<std::string> const& replies,
                                  std::string const& request)>;
FaultyServer::Script serveUntil(Step step, Answer const& answer);

/// Answers every request as a server without faults does, except those of `step`, which get what
/// `answer` makes of them until the server is mended.
FaultyServer::Script
serveWith(Step step, std::function<std::string(std::string const& request)> const& answer);

/// The steps of a column's exchange.
std::vector<Step> stepsOf(Column column);
char const* nameOf(Step step);

std::string joined(std::vector<std::string> const& pieces);

/// The tool's column, where it may end with any of these.
Accepted exitStatuses(std::initializer_list<int> statuses);
/// What a column makes of an entry that differs from the user's; nothing where it asks for none.
Accepted alteredEntry(Column column);
/// What it makes of a complete answer without entries.
Accepted nobody(Column column);

} // namespace SolvaneTest

#endif
