// The log of the service: standard error, which systemd passes to the journal.
#ifndef SOLVANE_SERVICE_LOG_H
#define SOLVANE_SERVICE_LOG_H

#include <solvane/lookup/Observer.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace Solvane::Service {

/// Writes lines. Thread-safe.
class Log {
public:
    /// How important a line is, with syslog's numbers.
    enum class Level { error = 3, warning = 4, notice = 5, info = 6 };

    /// @param isJournal  standard error is the journal's: each line begins with its level
    explicit Log(bool isJournal);
    /// Whether the environment says that standard error is the journal's.
    static bool isJournal();

    /// Writes one line; control characters and bidirectional ones are escaped.
    void write(Level level, std::string const& text);

private:
    bool const m_isJournal;
};

constexpr std::size_t longestName = 200;       ///< bytes of a client's text in a line
constexpr std::size_t longestServerText = 500; ///< bytes of a server's

/// A text of a client or a server on one line, and shortened: it may be long.
std::string brief(std::string_view text, std::size_t longest = longestName);

/// A warning that clients can provoke: written at most once a minute, with the number of those left
/// out. Thread-safe.
class RareWarning {
public:
    void write(Log& log, std::string const& text);

private:
    std::mutex m_mutex; ///< guards the members below
    std::chrono::steady_clock::time_point m_next;
    unsigned long m_leftOut = 0;
};

/// Logs what changes: servers lost and back, back-offs, refused credentials.
class LoggedEvents final : public Lookup::Observer {
public:
    /// @param log  must outlive it
    explicit LoggedEvents(Log& log) : m_log(log) {}

    void happened(Lookup::Event const& event) override;

private:
    Log& m_log;
};

} // namespace Solvane::Service

#endif
