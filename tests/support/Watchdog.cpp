// One thread that sleeps until the next test starts or the limit is reached.
#include "Watchdog.h"

#include <cstdio>
#include <cstdlib>

namespace SolvaneTest {

Watchdog::Watchdog(std::chrono::seconds limit)
    : m_limit(limit), m_turn(0), m_isDone(false), m_thread([this] { run(); })
{
}

Watchdog::~Watchdog()
{
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_isDone = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

void Watchdog::OnTestSuiteStart(testing::TestSuite const& suite)
{
    watch(std::string("the set-up of ") + suite.name());
}

void Watchdog::OnTestStart(testing::TestInfo const& test)
{
    watch(std::string(test.test_suite_name()) + '.' + test.name());
}

void Watchdog::OnTestEnd(testing::TestInfo const& test)
{
    watch(std::string("what follows ") + test.test_suite_name() + '.' + test.name());
}

void Watchdog::OnTestSuiteEnd(testing::TestSuite const&) { watch(std::string()); }

void Watchdog::watch(std::string const& what)
{
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_watched = what;
        ++m_turn;
    }
    m_changed.notify_one();
}

void Watchdog::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_isDone) {
        unsigned int const turn = m_turn;
        bool const hasMovedOn =
            m_changed.wait_for(lock, m_limit, [&] { return m_isDone || m_turn != turn; });
        if (!hasMovedOn && !m_watched.empty()) {
            std::fprintf(stderr, "Watchdog: %s hangs; it had %lld seconds.\n", m_watched.c_str(),
                         static_cast<long long>(m_limit.count()));
            std::abort();
        }
    }
}

} // namespace SolvaneTest
