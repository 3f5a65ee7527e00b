// Waits for descriptors and a time.
#include <solvane/session/Waits.h>

#include <algorithm>
#include <climits>

namespace Solvane::Lookup {

void Waits::clear()
{
    m_descriptors.clear();
    m_moment = Clock::time_point::max();
}

void Waits::add(int descriptor, short events)
{
    if (descriptor != -1) {
        m_descriptors.push_back(pollfd{descriptor, events, 0});
    }
}

void Waits::until(Clock::time_point moment) { m_moment = std::min(m_moment, moment); }

void Waits::wait()
{
    using std::chrono::milliseconds;
    bool const hasMoment = m_moment != Clock::time_point::max();
    if (!hasMoment && m_descriptors.empty()) {
        return;
    }
    int timeout = -1;
    if (hasMoment) {
        // Rounded up: a wait that ends too early would be repeated in a busy loop.
        auto const now = Clock::now();
        auto const left =
            m_moment <= now ? milliseconds(0) : std::chrono::ceil<milliseconds>(m_moment - now);
        timeout = static_cast<int>(std::min<milliseconds::rep>(left.count(), INT_MAX));
    }
    poll(m_descriptors.data(), m_descriptors.size(), timeout);
}

} // namespace Solvane::Lookup
