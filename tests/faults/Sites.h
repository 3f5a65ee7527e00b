// Sites shared by several kinds of fault: a faulty server, and its scripts.
#ifndef SOLVANE_TESTS_FAULTS_SITES_H
#define SOLVANE_TESTS_FAULTS_SITES_H

#include "Fault.h"
#include "FaultyServer.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace SolvaneTest {

/// How long a damaged connection waits for the next request before it is closed. Otherwise a client
/// that waits for the rest of a message would run into its own timeout.
constexpr std::chrono::milliseconds shortly{40};

/// A server that plays a script until it is repaired.
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

/// A healthy server; the fault is in this process.
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

/// Answers requests as a healthy server, except the first one of `step`: `answer` gets the correct
/// answer and sends its own; when it returns, the connection is closed.
using Answer = std::function<void(FaultyServer::Peer&, std::vector<std::string> const& replies,
                                  std::string const& request)>;
FaultyServer::Script serveUntil(Step step, Answer const& answer);

/// Answers every request as a healthy server, except those of `step`, which `answer` changes until
/// the server is repaired.
FaultyServer::Script
serveWith(Step step, std::function<std::string(std::string const& request)> const& answer);

/// The steps of a column's exchange.
std::vector<Step> stepsOf(Column column);
char const* nameOf(Step step);

std::string joined(std::vector<std::string> const& pieces);

/// The tool's column, with these accepted exit statuses.
Accepted exitStatuses(std::initializer_list<int> statuses);
/// The result of a column for an altered entry; empty if it does not search.
Accepted alteredEntry(Column column);
/// The result of a column for a complete answer without entries; of a stream, for one without some.
Accepted nobody(Column column);

} // namespace SolvaneTest

#endif
