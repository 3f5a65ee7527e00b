// The service as a whole: its sockets, threads, signals and metrics.
#ifndef SOLVANE_SERVICE_SERVICE_H
#define SOLVANE_SERVICE_SERVICE_H

#include "Listener.h"
#include "Log.h"
#include "LoginLimits.h"
#include "Lookups.h"
#include "Maps.h"
#include "Metrics.h"
#include "ServiceSettings.h"
#include "Worker.h"

#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>
#include <chrono>
#include <exception>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Solvane::Service {

/// Runs until SIGTERM or SIGINT. SIGHUP reads the settings and maps anew: if something is wrong with
/// them, those in use stay; else later requests go to the new ones. Sockets and threads stay as they are.
class Service {
public:
    /// @param folder     of the settings
    /// @param statsFile  is written with the metrics every ten seconds; empty: none
    /// @throws Failure   "configuration": invalid settings of a map
    Service(std::string folder, std::shared_ptr<Configuration const> configuration,
            std::string statsFile, Log& log);
    ~Service();
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;

    /// Opens the sockets, and serves.
    /// @throws Failure         "configuration": a socket cannot be opened, or there are not enough
    ///                         descriptors
    /// @throws std::exception  an internal error in a thread
    void run();

private:
    std::shared_ptr<Maps> makeMaps(std::shared_ptr<Configuration const> const& configuration,
                                   Maps const* before);
    void use(std::shared_ptr<Maps> const& maps);
    void limitClients();
    void startThreads();
    void beginService();
    void open();
    void add(ClientKind kind, int descriptor, std::string const& path);
    void requireAuthMap(ServiceSettings const& settings) const;
    void accept(ClientKind kind, int descriptor);
    void awaitSignal();
    void reload();
    void replaceMaps(std::vector<Tool::Failure>& faults);
    void beginStop();
    void awaitLastClient();
    void stop();
    std::string stats() const;
    void keepStatsFile();
    void writeStatsFile(std::string const& text);
    void keepWatchdog();

    std::string const m_folder;
    std::shared_ptr<Configuration const> const m_configuration; ///< of the start
    std::string const m_statsFile;
    Log& m_log;
    Metrics m_metrics;
    LoginLimits m_limits;
    Environment m_environment;
    std::shared_ptr<LoggedEvents> const m_observer;
    std::shared_ptr<Maps> m_maps;
    std::vector<std::unique_ptr<Worker>> const m_workers; ///< the first has the calling thread
    std::vector<std::thread> m_threads;
    std::vector<std::exception_ptr> m_ends; ///< of the workers' threads; null: as told
    long m_mostClients = 0;
    std::size_t m_next = 0; ///< index of the worker for the next client
    // All below belong to the first worker.
    std::list<Listener> m_listeners;
    bool m_takesLogins = false; ///< one of the listeners does
    boost::asio::signal_set m_signals;
    boost::asio::steady_timer m_stopTimer;
    boost::asio::steady_timer m_statsTimer;
    boost::asio::steady_timer m_watchdogTimer;
    std::chrono::steady_clock::time_point m_stopBy;
    RareWarning m_turnedAway;            ///< about too many clients
    std::atomic<std::size_t> m_alive{0}; ///< workers that have reacted since they were asked
    bool m_asksWorkers = false;          ///< whether they react
    bool m_isStopping = false;
    std::atomic<bool> m_isWritingStats{false};
    bool m_hasStatsFile = true; ///< belongs to the thread of m_statsWriter
    std::unique_ptr<boost::asio::thread_pool> m_statsWriter; ///< one thread; null: there is no file
};

} // namespace Solvane::Service

#endif
