// Loops with poll.
#include "Queues.h"

#include <poll.h>

namespace SolvaneTest {

bool awaitReadable(int descriptor, std::chrono::milliseconds time)
{
    pollfd polled{descriptor, POLLIN, 0};
    return poll(&polled, 1, static_cast<int>(time.count())) == 1;
}

bool QueueLoop::runUntil(std::size_t answers)
{
    while (m_count < answers) {
        if (!awaitReadable(m_queue.descriptor())) {
            return false;
        }
        ++m_wakeUps;
        take();
    }
    return true;
}

void QueueLoop::runFor(std::chrono::milliseconds time)
{
    auto const end = std::chrono::steady_clock::now() + time;
    for (;;) {
        auto const left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !awaitReadable(m_queue.descriptor(), left)) {
            return;
        }
        ++m_wakeUps;
        take();
    }
}

void QueueLoop::take()
{
    while (auto result = m_queue.next()) {
        ++m_count;
        if (result->verification) {
            m_verifications[result->tag] = *result->verification;
        } else {
            m_answers[result->tag] = {result->key, std::move(result->answer)};
        }
    }
}

} // namespace SolvaneTest
