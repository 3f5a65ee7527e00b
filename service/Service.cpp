// Starts, reloads and stops the service.
#include "Service.h"

#include "Files.h"
#include "Systemd.h"

#include <solvane/ldap/LDAPException.h>

#include <boost/asio/post.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <map>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Solvane::Service {

namespace {

using Clock = std::chrono::steady_clock;
using Tool::Failure;
using Tool::Outcome;

constexpr std::chrono::seconds statsInterval(10);
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

constexpr int takenSignals[] = {SIGHUP, SIGTERM, SIGINT};

/// Blocks or unblocks those in the calling thread, and in the threads it makes from then on.
void maskSignals(int how)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (int const signal : takenSignals) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(how, &signals, nullptr);
}

LoginLimits::Bounds boundsIn(ServiceSettings const& settings)
{
    return {settings.authFailures, settings.authAddressFailures, settings.authFailuresTime};
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
      m_statsFile(std::move(statsFile)), m_log(log), m_limits(boundsIn(m_configuration->service)),
      m_environment{m_metrics, m_log, m_limits, {}, {}},
      m_observer(std::make_shared<LoggedEvents>(log)), m_maps(makeMaps(m_configuration, nullptr)),
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
    use(m_maps);
    maskSignals(SIG_BLOCK); // only the first thread takes them
    startThreads();
    for (int const signal : takenSignals) {
        m_signals.add(signal);
    }
    awaitSignal();
    keepStatsFile();
    keepWatchdog();
    // In the loop: ThreadSanitizer of GCC 12 can lose a signal before the first wait of a thread.
    boost::asio::post(m_workers.front()->context(), [this] { beginService(); });
    m_workers.front()->run();
    stop();
    for (std::exception_ptr const& end : m_ends) {
        if (end) {
            std::rethrow_exception(end);
        }
    }
}

void Service::beginService()
{
    maskSignals(SIG_UNBLOCK); // some may have come already
    m_log.write(Log::Level::notice, fmt::format("serving {} maps on {} sockets",
                                                m_maps->all().size(), m_listeners.size()));
    notifySystemd("READY=1");
}

/// An internal error in one thread ends the service: systemd starts it anew.
void Service::startThreads()
{
    if (!m_statsFile.empty()) {
        m_statsWriter = std::make_unique<boost::asio::thread_pool>(1);
    }
    m_ends.resize(m_workers.size());
    for (std::size_t i = 1; i < m_workers.size(); ++i) {
        m_threads.emplace_back([this, i] {
            try {
                m_workers[i]->run();
            } catch (...) {
                m_ends[i] = std::current_exception();
                m_workers.front()->stop();
            }
        });
    }
}

// Maps

std::shared_ptr<Maps> Service::makeMaps(std::shared_ptr<Configuration const> const& configuration,
                                        Maps const* before)
{
    try {
        return std::make_shared<Maps>(configuration, m_metrics, m_observer, before);
    } catch (LDAPException const& fault) {
        throw Failure(Outcome::configuration, fault.stringParameter(), "correct the settings");
    }
}

/// Puts maps into use in all threads, or in none.
void Service::use(std::shared_ptr<Maps> const& maps)
{
    std::vector<Lookups::Queues> queues;
    try {
        for (auto const& worker : m_workers) {
            queues.push_back(worker->prepare(maps));
        }
    } catch (std::system_error const& fault) {
        throw Failure(Outcome::configuration, fmt::format("cannot use the maps: {}", fault.what()),
                      "raise the limit of open files");
    }
    m_maps = maps;
    for (std::size_t i = 0; i < m_workers.size(); ++i) {
        m_workers[i]->use(maps, std::move(queues[i]));
    }
    limitClients();
}

/// Leaves descriptors for what is no client, also while a reload makes all queues and connections a
/// second time: without them, every lookup would fail.
void Service::limitClients()
{
    constexpr long spare = 16;
    constexpr long ofQueue = 3;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    ServiceSettings const& settings = m_maps->service();
    long maps = 0;
    for (Map const& map : m_maps->all()) {
        bool const isForLogins = map.settings.name == settings.authMap;
        maps += ofQueue * static_cast<long>(m_workers.size()) +
                (map.hasOwnPool ? static_cast<long>(map.settings.lookup.connections) : 0) +
                (isForLogins ? static_cast<long>(map.settings.lookup.verifyConnections) : 0);
    }
    long const others =
        spare + spareStatsClients + static_cast<long>(m_listeners.size()) + 2 * maps;
    long const room =
        std::max(1L, static_cast<long>(std::min<rlim_t>(limit.rlim_cur, 1 << 30)) - others);
    m_mostClients = std::min(static_cast<long>(settings.clients), room);
    if (m_mostClients < static_cast<long>(settings.clients)) {
        m_log.write(Log::Level::warning,
                    fmt::format("the limit of open files ({}) allows {} clients: raise it",
                                limit.rlim_cur, m_mostClients));
    }
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
    requireAuthMap(settings);
}

void Service::add(ClientKind kind, int descriptor, std::string const& path)
{
    m_listeners.emplace_back(m_workers.front()->context(), descriptor, path,
                             [this, kind](int client) { accept(kind, client); });
    m_takesLogins |= kind == ClientKind::auth;
}

/// The settings alone do not know of systemd's sockets, nor of those that were opened at the start.
void Service::requireAuthMap(ServiceSettings const& settings) const
{
    if (m_takesLogins && settings.authMap.empty()) {
        throw Failure(Outcome::configuration,
                      "there is a socket for logins, but auth_map is not set",
                      "set it in service.conf, or close the socket and start the service anew");
    }
}

void Service::accept(ClientKind kind, int descriptor)
{
    long const most = m_mostClients + (kind == ClientKind::stats ? spareStatsClients : 0);
    bool const isTurnedAway = m_metrics.clients.load() >= most;
    Accepted accepted(descriptor, m_metrics);
    if (isTurnedAway) {
        ++m_metrics.turnedAway;
        m_turnedAway.write(m_log,
                           fmt::format("there are {} clients: others are turned away", most));
        return;
    }
    ++m_metrics.accepted;
    if (kind == ClientKind::stats) {
        m_workers.front()->adopt(kind, std::move(accepted));
        return;
    }
    m_workers[m_next]->adopt(kind, std::move(accepted));
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
            if (!m_isStopping) {
                reload();
            }
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
        requireAuthMap(configuration->service);
        use(makeMaps(configuration, m_maps.get()));
    } catch (Failure const& fault) {
        faults.push_back(fault);
        return;
    }
    ServiceSettings const& settings = configuration->service;
    m_limits.change(boundsIn(settings));
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

/// The file is written in a thread of its own: a slow disk holds up no client.
void Service::keepStatsFile()
{
    if (!m_statsWriter) {
        return;
    }
    if (!m_isWritingStats.exchange(true)) { // else the last one is still being written
        boost::asio::post(*m_statsWriter, [this, text = stats()] {
            writeStatsFile(text);
            m_isWritingStats = false;
        });
    }
    m_statsTimer.expires_after(statsInterval);
    m_statsTimer.async_wait([this](boost::system::error_code const& error) {
        if (!error) {
            keepStatsFile();
        }
    });
}

/// Who reads the file sees a whole one.
void Service::writeStatsFile(std::string const& text)
{
    constexpr mode_t mode = 0644; // for the programs that collect metrics, whatever the umask
    std::string const temporary = m_statsFile + ".new";
    try {
        Tool::Descriptor const file(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
        if (!file.isOpen() || fchmod(file.get(), mode) != 0) {
            throw Tool::unwritableFile(m_statsFile, errno);
        }
        Tool::writeWhole(file.get(), m_statsFile, text);
        if (std::rename(temporary.c_str(), m_statsFile.c_str()) != 0) {
            throw Tool::unwritableFile(m_statsFile, errno);
        }
        m_hasStatsFile = true;
    } catch (Failure const& fault) {
        if (std::exchange(m_hasStatsFile, false)) {
            m_log.write(Log::Level::warning, fault.what());
        }
    }
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
