// The threads, their rate, and the check of each answer.
#include "Load.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <thread>

namespace SolvaneTest {

using Solvane::LDAPLookup;
using Solvane::LDAPSearchResultEntry;
using std::chrono::milliseconds;

namespace {

constexpr double floodShare = 0.7; ///< of a tide
constexpr milliseconds ebbPace(20);
constexpr milliseconds noticeable(100); ///< shorter outages are everyday latency
constexpr unsigned int everyNthUnknown = 5;
constexpr std::size_t wrongAnswersKept = 10;
constexpr std::size_t errorTimesKept = 4096; // of each thread
constexpr std::size_t errorTextsKept = 32;   // of each thread

std::string userName(unsigned int number)
{
    char text[16];
    std::snprintf(text, sizeof text, "user%07u", number);
    return text;
}

/// A user to look up, and the expected entry.
struct Question {
    std::string address;
    std::string dn; ///< empty: there is no such user
};

std::string valuesOf(LDAPSearchResultEntry const& entry)
{
    std::string text;
    for (Solvane::LDAPAttribute const& attribute : entry.attributes().attributes()) {
        text += attribute.asString(',');
    }
    return text;
}

/// Whether it is exactly the requested user. Some users have a second address.
bool isTheUser(LDAPLookup::Answer const& answer, Question const& question)
{
    if (answer.entries.size() != 1 || answer.entries.front().entryName() != question.dn) {
        return false;
    }
    std::string const mails = valuesOf(answer.entries.front());
    return mails == question.address || mails.rfind(question.address + ',', 0) == 0;
}

char const* nameOf(LDAPLookup::Outcome outcome)
{
    switch (outcome) {
    case LDAPLookup::Outcome::Found:
        return "Found";
    case LDAPLookup::Outcome::NotFound:
        return "NotFound";
    case LDAPLookup::Outcome::Skipped:
        return "Skipped";
    case LDAPLookup::Outcome::BadKey:
        return "BadKey";
    case LDAPLookup::Outcome::TryLater:
        return "TryLater";
    case LDAPLookup::Outcome::Refused:
        return "Refused";
    case LDAPLookup::Outcome::Misconfigured:
        return "Misconfigured";
    }
    return "?";
}

std::string wordsFor(LDAPLookup::Answer const& answer, Question const& question)
{
    std::string words = question.address + ": " + nameOf(answer.outcome);
    for (LDAPSearchResultEntry const& entry : answer.entries) {
        words += ' ' + entry.entryName() + " (" + valuesOf(entry) + ')';
    }
    return words;
}

/// Whether the load is at its flood.
class Tides {
public:
    Tides(Clock::time_point start, Clock::duration length) : m_start(start), m_length(length) {}

    bool isFlood(Clock::time_point now) const
    {
        return std::chrono::duration<double>((now - m_start) % m_length) <
               std::chrono::duration<double>(m_length) * floodShare;
    }

private:
    Clock::time_point const m_start;
    Clock::duration const m_length;
};

/// State shared by the threads of one way.
struct Common {
    Party const& party;
    LoadSettings const& settings;
    Tides const& tides;
    Clock::time_point end;
    SuccessTimes& successes;
};

/// One thread.
class Worker {
public:
    Worker(Common const& common, unsigned int number, std::uint64_t seed)
        : m_common(common), m_asksInEbb(number == 0), m_random(seed), m_outages(noticeable)
    {
        m_errorTimes.reserve(errorTimesKept);
    }

    void run()
    {
        for (;;) {
            bool const isFlood = m_common.tides.isFlood(Clock::now());
            pause(isFlood);
            if (Clock::now() >= m_common.end) {
                return;
            }
            if (isFlood || m_asksInEbb) {
                ask(next());
            } else {
                m_outages.paused();
            }
        }
    }

    void addTo(WayReport& report) const
    {
        report.found += m_found;
        report.notFound += m_notFound;
        report.wrong += m_wrong;
        for (std::string const& words : m_wrongAnswers) {
            if (report.wrongAnswers.size() < wrongAnswersKept) {
                report.wrongAnswers.push_back(words);
            }
        }
        for (auto const& [reason, count] : m_errors) {
            report.errors[reason] += count;
        }
        for (auto const& [text, count] : m_errorTexts) {
            report.errorTexts[text] += count;
        }
        report.errorTimes.insert(report.errorTimes.end(), m_errorTimes.begin(), m_errorTimes.end());
        report.latencies.add(m_latencies);
        report.outages.insert(report.outages.end(), m_outages.spans().begin(),
                              m_outages.spans().end());
    }

private:
    void pause(bool isFlood)
    {
        if (!isFlood) {
            std::this_thread::sleep_for(ebbPace);
            return;
        }
        LoadSettings const& settings = m_common.settings;
        std::exponential_distribution<double> seconds(settings.rate / settings.threads);
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds(m_random)));
    }

    Question next()
    {
        LoadSettings const& settings = m_common.settings;
        unsigned int const number =
            std::uniform_int_distribution<unsigned int>(1, settings.users)(m_random);
        if (m_random() % everyNthUnknown == 0) {
            return {"nobody" + std::to_string(number) + "@corp.test", std::string()};
        }
        std::string const name = userName(number);
        return {name + "@corp.test", "uid=" + name + ',' + settings.base};
    }

    void ask(Question const& question)
    {
        auto const start = Clock::now();
        m_outages.asked(start);
        LDAPLookup::Answer const answer = m_common.party.way->lookUp(question.address);
        auto const end = Clock::now();
        m_latencies.add(end - start);
        if (judge(question, answer, end)) {
            m_outages.answered(end);
            m_common.successes.add(end);
        }
    }

    /// True for the right answer.
    bool judge(Question const& question, LDAPLookup::Answer const& answer, Clock::time_point end)
    {
        bool const exists = !question.dn.empty();
        switch (answer.outcome) {
        case LDAPLookup::Outcome::TryLater:
        case LDAPLookup::Outcome::Refused:
        case LDAPLookup::Outcome::Misconfigured:
            note(std::string(nameOf(answer.outcome)) + ' ' + std::to_string(answer.code),
                 answer.text);
            if (m_errorTimes.size() < errorTimesKept) {
                m_errorTimes.push_back(end);
            }
            return false;
        default:
            break;
        }
        if (exists && answer.outcome == LDAPLookup::Outcome::Found && isTheUser(answer, question)) {
            ++m_found;
            return true;
        }
        if (!exists && answer.outcome == LDAPLookup::Outcome::NotFound) {
            ++m_notFound;
            return true;
        }
        ++m_wrong;
        if (m_wrongAnswers.size() < wrongAnswersKept) {
            m_wrongAnswers.push_back(wordsFor(answer, question));
        }
        return false;
    }

    void note(std::string const& reason, std::string const& text)
    {
        ++m_errors[reason];
        if (m_errorTexts.size() < errorTextsKept || m_errorTexts.count(text) != 0) {
            ++m_errorTexts[text];
        }
    }

    Common const& m_common;
    bool const m_asksInEbb;
    std::mt19937_64 m_random;
    Outages m_outages;
    Latencies m_latencies;
    std::uint64_t m_found = 0;
    std::uint64_t m_notFound = 0;
    std::uint64_t m_wrong = 0;
    std::vector<std::string> m_wrongAnswers;
    std::map<std::string, std::uint64_t> m_errors;
    std::map<std::string, std::uint64_t> m_errorTexts;
    std::vector<Clock::time_point> m_errorTimes;
};

/// One way with its threads.
class Crew {
public:
    Crew(Party const& party, LoadSettings const& settings, Tides const& tides, Span const& time,
         unsigned int threads, std::uint64_t seed)
        : m_successes(time.from, settings.length), m_common{party, settings, tides, time.to,
                                                            m_successes}
    {
        for (unsigned int number = 0; number != threads; ++number) {
            m_workers.push_back(std::make_unique<Worker>(m_common, number, seed + number));
        }
    }

    void start()
    {
        for (auto const& worker : m_workers) {
            m_threads.emplace_back([&worker] { worker->run(); });
        }
    }

    WayReport finish()
    {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        WayReport report;
        report.name = m_common.party.name;
        report.threads = static_cast<unsigned int>(m_workers.size());
        for (auto const& worker : m_workers) {
            worker->addTo(report);
        }
        report.stretches = m_successes.stretchesWithout(noticeable, m_common.end);
        report.statistics = m_common.party.way->statistics();
        return report;
    }

private:
    SuccessTimes m_successes;
    Common const m_common;
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::vector<std::thread> m_threads;
};

} // namespace

LoadReport putLoadOn(std::vector<Party> const& parties, LoadSettings const& settings)
{
    auto const start = Clock::now();
    LoadReport report;
    report.time = {start, start + settings.length};
    Tides const tides(start, settings.tide);
    auto const count = static_cast<unsigned int>(parties.size());
    std::vector<std::unique_ptr<Crew>> crews;
    for (unsigned int number = 0; number != count; ++number) {
        unsigned int const threads = settings.threads / count + (number < settings.threads % count);
        crews.push_back(std::make_unique<Crew>(parties[number], settings, tides, report.time,
                                               threads, settings.seed + 1000 * number));
    }
    for (auto const& crew : crews) {
        crew->start();
    }
    for (auto const& crew : crews) {
        report.ways.push_back(crew->finish());
    }
    return report;
}

} // namespace SolvaneTest
