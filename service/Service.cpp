// Starts, reloads and stops the service.
#include "Service.h"

#include "Systemd.h"

#include <solvane/ldap/LDAPException.h>

#include <boost/asio/post.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace Solvane::Service {

namespace {

using Clock = std::chrono::steady_clock;
using Tool::Failure;
using Tool::Outcome;

constexpr std::chrono::seconds statsInterval(10);
constexpr std::chrono::seconds complaintInterval(60);
constexpr std::chrono::milliseconds lastClientInterval(20);
constexpr long spareStatsClients = 10; ///< metrics can be read while there are too many clients

char const* nameOf(ClientKind kind)
{
    switch (kind) {
    case ClientKind::auth:
        return "auth";
    case ClientKind::stats:
        return "stats";
    case ClientKind::socketmap:
        break;
    }
    return "socketmap";
}

void requireListening(int descriptor)
{
    int isListening = 0;
    socklen_t size = sizeof isListening;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &isListening, &size) != 0 ||
        isListening == 0) {
        throw Failure(Outcome::configuration,
                      fmt::format("descriptor {} of systemd is no listening socket", descriptor),
                      "use ListenStream= and Accept=no");
    }
}

std::vector<std::unique_ptr<Worker>>
makeWorkers(Environment& environment, std::function<std::string()> const& stats, unsigned int count)
{
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned int i = 0; i < count; ++i) {
        workers.push_back(std::make_unique<Worker>(environment, stats));
    }
    return workers;
}

} // namespace

Service::Service(std::string folder, std::shared_ptr<Configuration const> configuration,
                 std::string statsFile, Log& log)
    : m_folder(std::move(folder)), m_configuration(std::move(configuration)),
      m_statsFile(std::move(statsFile)), m_log(log),
      m_limits(m_configuration->service.authFailures, m_configuration->service.authFailuresTime),
      m_environment{m_metrics, m_log, m_limits}, m_observer(std::make_shared<LoggedEvents>(log)),
      m_maps(std::make_shared<Maps>(m_configuration, m_metrics, m_observer, nullptr)),
      m_workers(makeWorkers(
          m_environment, [this] { return stats(); }, m_configuration->service.threads)),
      m_signals(m_workers.front()->context()), m_stopTimer(m_workers.front()->context()),
      m_statsTimer(m_workers.front()->context()), m_watchdogTimer(m_workers.front()->context())
{
}

Service::~Service() { stop(); }

void Service::run()
{
    open();
    for (auto const& worker : m_workers) {
        worker->use(m_maps);
        if (worker != m_workers.front()) {
            m_threads.emplace_back([started = worker.get()] { started->run(); });
        }
    }
    for (int const signal : {SIGHUP, SIGTERM, SIGINT}) {
        m_signals.add(signal);
    }
    awaitSignal();
    keepStatsFile();
    keepWatchdog();
    m_log.write(Log::Level::notice, fmt::format("serving {} maps on {} sockets",
                                                m_maps->all().size(), m_listeners.size()));
    notifySystemd("READY=1");
    m_workers.front()->run();
    stop();
}

// Sockets

void Service::open()
{
    std::map<std::string, std::vector<int>> activated;
    for (ActivatedSocket const& socket : activatedSockets()) {
        activated[socket.name].push_back(socket.descriptor);
    }
    ServiceSettings const& settings = m_configuration->service;
    for (auto const& [kind, endpoints] : {std::pair(ClientKind::socketmap, &settings.socketmap),
                                          std::pair(ClientKind::auth, &settings.auth),
                                          std::pair(ClientKind::stats, &settings.stats)}) {
        auto const sockets = activated.find(nameOf(kind));
        if (sockets != activated.end()) { // they replace those of the settings
            for (int const descriptor : sockets->second) {
                requireListening(descriptor);
                add(kind, descriptor, "");
            }
            activated.erase(sockets);
            continue;
        }
        for (Endpoint const& endpoint : *endpoints) {
            add(kind, listenOn(endpoint, settings.access), endpoint.path);
        }
    }
    if (!activated.empty()) {
        throw Failure(
            Outcome::configuration,
            fmt::format("a socket of systemd has the name '{}'", activated.begin()->first),
            "set FileDescriptorName= to socketmap, auth or stats");
    }
    if (m_listeners.empty()) {
        throw Failure(Outcome::configuration, "there is no socket to listen on",
                      "set listen_socketmap or listen_auth in service.conf");
    }
}

void Service::add(ClientKind kind, int descriptor, std::string const& path)
{
    m_listeners.emplace_back(m_workers.front()->context(), descriptor, path,
                             [this, kind](int client) { accept(kind, client); });
}

void Service::accept(ClientKind kind, int descriptor)
{
    long const most = static_cast<long>(m_maps->service().clients) +
                      (kind == ClientKind::stats ? spareStatsClients : 0);
    if (m_metrics.clients.load() >= most) {
        close(descriptor);
        ++m_metrics.turnedAway;
        if (Clock::now() >= m_nextComplaint) {
            m_nextComplaint = Clock::now() + complaintInterval;
            m_log.write(Log::Level::warning,
                        fmt::format("there are {} clients: others are turned away", most));
        }
        return;
    }
    ++m_metrics.clients;
    ++m_metrics.accepted;
    if (kind == ClientKind::stats) {
        m_workers.front()->adopt(kind, descriptor);
        return;
    }
    m_workers[m_next]->adopt(kind, descriptor);
    m_next = (m_next + 1) % m_workers.size();
}

// Signals

void Service::awaitSignal()
{
    m_signals.async_wait([this](boost::system::error_code const& error, int signal) {
        if (error) {
            return;
        }
        if (signal == SIGHUP) {
            reload();
        } else if (m_isStopping) {
            stop();
        } else {
            beginStop();
        }
        awaitSignal();
    });
}

void Service::reload()
{
    notifySystemd(reloadingState());
    std::vector<Failure> faults;
    replaceMaps(faults);
    for (Failure const& fault : faults) {
        m_log.write(Log::Level::error, fault.what());
    }
    if (faults.empty()) {
        ++m_metrics.reloads;
        m_log.write(Log::Level::notice,
                    fmt::format("read the settings and {} maps anew", m_maps->all().size()));
    } else {
        ++m_metrics.failedReloads;
        m_log.write(Log::Level::error, "the new settings are invalid: those in use stay");
    }
    notifySystemd("READY=1");
}

void Service::replaceMaps(std::vector<Failure>& faults)
{
    auto const configuration = readConfiguration(m_folder, faults);
    if (!faults.empty()) {
        return;
    }
    try {
        m_maps = std::make_shared<Maps>(configuration, m_metrics, m_observer, m_maps.get());
    } catch (LDAPException const& fault) {
        faults.emplace_back(Outcome::configuration, fault.stringParameter(),
                            "correct the settings");
        return;
    }
    ServiceSettings const& settings = configuration->service;
    m_limits.change(settings.authFailures, settings.authFailuresTime);
    for (auto const& worker : m_workers) {
        worker->use(m_maps);
    }
    for (std::string const& name : needingRestart(m_configuration->service, settings)) {
        m_log.write(Log::Level::warning,
                    fmt::format("{} has changed: restart the service to use it", name));
    }
}

/// Requests under way end, at most for `stopTime`.
void Service::beginStop()
{
    m_isStopping = true;
    notifySystemd("STOPPING=1");
    m_log.write(Log::Level::notice, "stopping");
    m_listeners.clear();
    for (auto const& worker : m_workers) {
        worker->drain();
    }
    m_stopBy = Clock::now() + m_maps->service().stopTime;
    awaitLastClient();
}

void Service::awaitLastClient()
{
    if (m_metrics.clients.load() == 0 || Clock::now() >= m_stopBy) {
        for (auto const& worker : m_workers) {
            worker->stop();
        }
        return;
    }
    m_stopTimer.expires_after(lastClientInterval);
    m_stopTimer.async_wait([this](boost::system::error_code const& error) {
        if (!error) {
            awaitLastClient();
        }
    });
}

void Service::stop()
{
    for (auto const& worker : m_workers) {
        worker->stop();
    }
    for (std::thread& thread : m_threads) {
        if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) {
            thread.join();
        }
    }
}

// Metrics

std::string Service::stats() const { return m_metrics.text(m_maps->pools()); }

void Service::keepStatsFile()
{
    if (m_statsFile.empty()) {
        return;
    }
    writeStatsFile();
    m_statsTimer.expires_after(statsInterval);
    m_statsTimer.async_wait([this](boost::system::error_code const& error) {
        if (!error) {
            keepStatsFile();
        }
    });
}

/// Who reads the file sees a whole one.
void Service::writeStatsFile()
{
    std::string const temporary = m_statsFile + ".new";
    std::ofstream file(temporary, std::ios::trunc);
    file << stats();
    file.close();
    bool const isWritten = file && std::rename(temporary.c_str(), m_statsFile.c_str()) == 0;
    if (!isWritten && m_hasStatsFile) {
        m_log.write(Log::Level::warning,
                    fmt::format("cannot write {}: {}", m_statsFile, strerror(errno)));
    }
    m_hasStatsFile = isWritten;
}

/// Tells systemd that every thread still reacts.
void Service::keepWatchdog()
{
    auto const time = watchdogTime();
    if (!time) {
        return;
    }
    if (m_asksWorkers && m_alive.load() == m_workers.size()) {
        notifySystemd("WATCHDOG=1");
        m_asksWorkers = false;
    }
    if (!m_asksWorkers) {
        m_asksWorkers = true;
        m_alive = 0;
        for (auto const& worker : m_workers) {
            boost::asio::post(worker->context(), [this] { ++m_alive; });
        }
    }
    m_watchdogTimer.expires_after(*time / 4);
    m_watchdogTimer.async_wait([this](boost::system::error_code const& error) {
        if (!error) {
            keepWatchdog();
        }
    });
}

} // namespace Solvane::Service
