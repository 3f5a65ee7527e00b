// An epoll instance with an eventfd, a timerfd and the watched descriptors.
#include "PollSet.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Solvane::Lookup {

namespace {

int made(int descriptor, char const* what)
{
    if (descriptor == -1) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return descriptor;
}

void shut(int& descriptor)
{
    if (descriptor != -1) {
        close(std::exchange(descriptor, -1));
    }
}

} // namespace

PollSet::PollSet()
{
    try {
        m_epoll = made(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
        open();
    } catch (std::system_error const&) {
        shut(m_timer);
        shut(m_event);
        shut(m_epoll);
        throw;
    }
}

/// Closes only: in a forked child, the epoll instance is the parent's too.
PollSet::~PollSet()
{
    shut(m_timer);
    shut(m_event);
    shut(m_epoll);
}

void PollSet::open()
{
    m_event = made(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
    m_timer = made(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create");
    add(m_event, POLLIN);
    add(m_timer, POLLIN);
}

void PollSet::renew()
{
    int const own = made(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    int const placed = dup3(own, m_epoll, EPOLL_CLOEXEC); // closes the parent's, in this process
    close(own);
    made(placed, "dup3");
    shut(m_timer);
    shut(m_event);
    m_watched.clear();
    m_isSignalled = false;
    m_timerAt = Clock::time_point::max();
    open();
}

void PollSet::signal(bool isOn)
{
    if (isOn == m_isSignalled) {
        return;
    }
    m_isSignalled = isOn;
    eventfd_t value = 0;
    (void)(isOn ? eventfd_write(m_event, 1) : eventfd_read(m_event, &value));
}

void PollSet::watch(Waits& waits, bool mayBeReused)
{
    std::vector<Watched> wanted;
    wanted.reserve(waits.descriptors().size());
    for (pollfd const& waited : waits.descriptors()) {
        wanted.push_back({waited.fd, waited.events});
    }
    std::sort(wanted.begin(), wanted.end(), [](Watched const& one, Watched const& other) {
        return one.descriptor < other.descriptor;
    });
    replace(std::move(wanted), mayBeReused);
    setTimer(waits.moment());
}

/// Changes what differs. A closed descriptor leaves the epoll instance by itself; one whose number
/// was used again must be added again.
void PollSet::replace(std::vector<Watched> wanted, bool mayBeReused)
{
    auto known = m_watched.begin();
    for (Watched const& next : wanted) {
        for (; known != m_watched.end() && known->descriptor < next.descriptor; ++known) {
            remove(known->descriptor);
        }
        bool const isKnown = known != m_watched.end() && known->descriptor == next.descriptor;
        if (!isKnown || mayBeReused || known->events != next.events) {
            add(next.descriptor, next.events);
        }
        known += isKnown ? 1 : 0;
    }
    for (; known != m_watched.end(); ++known) {
        remove(known->descriptor);
    }
    m_watched = std::move(wanted);
}

void PollSet::clear() { replace({}, false); }

void PollSet::add(int descriptor, short events) const
{
    epoll_event event{};
    event.events = static_cast<std::uint32_t>(events); // POLLIN is EPOLLIN, POLLOUT is EPOLLOUT
    event.data.fd = descriptor;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, descriptor, &event) == -1 && errno == ENOENT) {
        (void)epoll_ctl(m_epoll, EPOLL_CTL_ADD, descriptor, &event);
    }
}

void PollSet::remove(int descriptor) const
{
    (void)epoll_ctl(m_epoll, EPOLL_CTL_DEL, descriptor, nullptr); // fails if it is closed already
}

/// A timer that is early costs one wake-up at most, a system call for each change of the moment
/// would cost more: deadlines move with every answer.
void PollSet::setTimer(Clock::time_point moment)
{
    bool const hasExpired = m_timerAt <= Clock::now();
    if (moment == m_timerAt || (moment > m_timerAt && !hasExpired)) {
        return;
    }
    itimerspec at{};
    if (moment != Clock::time_point::max()) {
        using std::chrono::nanoseconds;
        using std::chrono::seconds;
        auto const since = std::max<nanoseconds>(nanoseconds(1), moment.time_since_epoch());
        auto const whole = std::chrono::duration_cast<seconds>(since);
        at.it_value.tv_sec = whole.count();
        at.it_value.tv_nsec = (since - whole).count();
    }
    (void)timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &at, nullptr);
    m_timerAt = moment;
}

} // namespace Solvane::Lookup
