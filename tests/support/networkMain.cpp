// Runs the tests under a watchdog, which ends one that hangs: the library must never hang.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#if defined(__SANITIZE_THREAD__)
// A queue takes closed descriptors out of its epoll instance. That fails, as it should, also if another
// thread has got the number meanwhile; the sanitizer calls it a race for the descriptor.
extern "C" char const* __tsan_default_suppressions(); // NOLINT(bugprone-reserved-identifier)
extern "C" char const* __tsan_default_suppressions()  // NOLINT(bugprone-reserved-identifier)
{
    return "race:Solvane::Lookup::PollSet::remove\n";
}
#endif

namespace SolvaneTest {

/// Watches every test and every suite's set-up of a test program. If one takes longer than the
/// limit, the program prints its name and ends with SIGABRT, so that a debugger or a core file
/// shows where it hung.
class Watchdog : public testing::EmptyTestEventListener {
public:
    explicit Watchdog(std::chrono::seconds limit);
    ~Watchdog() override;

private:
    void OnTestSuiteStart(testing::TestSuite const& suite) override;
    void OnTestStart(testing::TestInfo const& test) override;
    void OnTestEnd(testing::TestInfo const& test) override;
    void OnTestSuiteEnd(testing::TestSuite const& suite) override;

    void watch(std::string const& what);
    void run();

    std::chrono::seconds const m_limit;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_watched; ///< guarded by m_mutex; empty: nothing
    unsigned int m_turn;   ///< guarded by m_mutex; counts calls of watch()
    bool m_isDone;         ///< guarded by m_mutex
    std::thread m_thread;
};

} // namespace SolvaneTest

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

/// Of the environment variable SOLVANE_TEST_SECONDS, for tests that are run with more data; else a minute.
std::chrono::seconds limitOfATest()
{
    constexpr long minute = 60;
    char const* const seconds = std::getenv("SOLVANE_TEST_SECONDS");
    return std::chrono::seconds(seconds == nullptr ? minute : std::stol(seconds));
}

} // namespace SolvaneTest

int main(int argumentCount, char** arguments)
{
    testing::InitGoogleTest(&argumentCount, arguments);
    // The parent process may ignore it; here a SIGPIPE raised by the library must end the tests.
    std::signal(SIGPIPE, SIG_DFL);
    testing::UnitTest::GetInstance()->listeners().Append(
        new SolvaneTest::Watchdog(SolvaneTest::limitOfATest()));
    return RUN_ALL_TESTS();
}
