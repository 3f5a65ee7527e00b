// Draws the progress line, limits how often, and prints figures at the end.
#include "Progress.h"

#include "Json.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include <sys/ioctl.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

using namespace std::chrono_literals;

constexpr auto delay = 500ms;    // before the first line
constexpr auto interval = 200ms; // between two lines
constexpr auto lookEvery = 50ms; // target time between two readings of the clock
constexpr unsigned long largestStep = 65536;

unsigned int terminalColumns()
{
    winsize size = {};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg)
    bool const isKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return isKnown ? size.ws_col : 80;
}

std::string timeText(double seconds)
{
    auto const whole = static_cast<unsigned long>(std::min(std::ceil(seconds), 359999.0));
    return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                        : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

std::string bar(double part, unsigned int width)
{
    auto const full = static_cast<unsigned int>(part * width);
    return '[' + std::string(full, '#') + std::string(width - full, '.') + "] ";
}

} // namespace

Progress::Progress(Diagnostics& diagnostics, std::optional<unsigned long> total)
    : m_diagnostics(diagnostics), m_total(total),
      m_isShown(isatty(STDERR_FILENO) == 1 && isatty(STDOUT_FILENO) == 0 &&
                diagnostics.level() != Diagnostics::Level::quiet),
      m_start(Clock::now()), m_lastLook(m_start), m_nextLine(m_start + delay)
{
}

Progress::~Progress() { finish(); }

void Progress::finish()
{
    if (m_isShown) {
        m_isShown = false;
        m_diagnostics.status("");
    }
}

/// Reads the clock, and adapts after how much work it is read again.
void Progress::look(unsigned long done)
{
    Clock::time_point const now = Clock::now();
    if (now - m_lastLook < lookEvery) {
        m_step = std::min(2 * m_step, largestStep);
    } else {
        m_step = std::max(m_step / 2, 1UL);
    }
    m_lastLook = now;
    m_nextLook = done + m_step;
    if (now >= m_nextLine) {
        m_nextLine = now + interval;
        std::chrono::duration<double> const taken = now - m_start;
        m_diagnostics.status(lineFor(done, taken.count(), terminalColumns()));
    }
}

std::string Progress::lineFor(unsigned long done, double seconds, unsigned int columns) const
{
    constexpr unsigned int leastBar = 10;
    constexpr unsigned int widestBar = 50;
    double const rate = static_cast<double>(done) / seconds;
    std::string line = fmt::format("{} {:.0f}/s", done, rate);
    if (m_total && *m_total != 0) {
        double const part =
            std::min(static_cast<double>(done) / static_cast<double>(*m_total), 1.0);
        unsigned long const ahead = *m_total - std::min(done, *m_total);
        line = fmt::format("{:3.0f} % {}/{} {:.0f}/s", 100 * part, done, *m_total, rate);
        if (done != 0) {
            line += ", " + timeText(static_cast<double>(ahead) / rate) + " left";
        }
        // The bar fills what the figures leave; its frame takes three columns.
        auto const figures = static_cast<unsigned int>(line.size()) + 4;
        if (columns >= figures + leastBar) {
            line.insert(0, bar(part, std::min(columns - figures, widestBar)));
        }
    }
    // The last column stays empty, or the cursor would move to the next line.
    line.resize(std::min<std::size_t>(line.size(), columns - 1));
    return line;
}

void printCounts(Diagnostics const& diagnostics, Stats stats, std::vector<Count> const& counts,
                 std::chrono::steady_clock::time_point start)
{
    std::chrono::duration<double, std::milli> const taken =
        std::chrono::steady_clock::now() - start;
    std::string text;
    if (stats == Stats::json) {
        Json json(text);
        json->StartObject();
        for (Count const& count : counts) {
            json.key(count.name)->Uint64(count.number);
        }
        json.key("ms")->Double(taken.count());
        json->EndObject();
        diagnostics.plain(text);
    } else if (stats == Stats::text) {
        for (Count const& count : counts) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count.number, count.statement);
        }
        diagnostics.plain(fmt::format("{} in {:.0f} ms", text, taken.count()));
    }
}

} // namespace Solvane::Tool
