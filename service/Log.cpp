// Writes the log.
#include "Log.h"

#include <solvane/session/PlainText.h>

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

namespace Solvane::Service {

namespace {

using Kind = Lookup::Event::Kind;

/// The line for an event; empty if it is of no interest: connections come and go.
std::string lineFor(Lookup::Event const& event)
{
    std::string const why = brief(event.why.text, longestServerText);
    switch (event.kind) {
    case Kind::backOff:
        return event.server + " is skipped for " + Lookup::inSeconds(event.backOff) + ": " + why;
    case Kind::recovered:
        return event.server + " serves again";
    case Kind::credentialsRefused:
        return event.server + " refuses the credentials: " + why;
    case Kind::disconnected:
        return "connection to " + event.server + " lost: " + why;
    case Kind::connected:
    case Kind::connectFailed:
    case Kind::repeated:
        break;
    }
    return {};
}

} // namespace

Log::Log(bool isJournal) : m_isJournal(isJournal) {}

bool Log::isJournal()
{
    char const* const stream = std::getenv("JOURNAL_STREAM"); // systemd.exec(5): "device:inode"
    struct stat status = {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
}

void Log::write(Level level, std::string const& text)
{
    std::string line = m_isJournal ? '<' + std::to_string(static_cast<int>(level)) + '>'
                                   : std::string("solvane-ldapd: ");
    line += Lookup::oneLine(text);
    line += '\n';
    (void)!::write(STDERR_FILENO, line.data(), line.size()); // there is nowhere to report it
}

std::string brief(std::string_view text, std::size_t longest)
{
    std::string shown = Lookup::oneLine(text.substr(0, longest));
    return text.size() > longest ? shown + "..." : shown;
}

void RareWarning::write(Log& log, std::string const& text)
{
    constexpr std::chrono::seconds interval(60);
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const now = std::chrono::steady_clock::now();
    if (now < m_next) {
        ++m_leftOut;
        return;
    }
    m_next = now + interval;
    std::string const remark =
        m_leftOut == 0 ? "" : " (" + std::to_string(m_leftOut) + " like it since the last one)";
    m_leftOut = 0;
    log.write(Log::Level::warning, text + remark);
}

void LoggedEvents::happened(Lookup::Event const& event)
{
    std::string const line = lineFor(event);
    if (!line.empty()) {
        m_log.write(event.kind == Kind::recovered ? Log::Level::notice : Log::Level::warning, line);
    }
}

} // namespace Solvane::Service
