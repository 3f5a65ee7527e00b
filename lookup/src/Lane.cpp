// Which searches a lane accepts, and when its server counts as silent.
#include "Lane.h"

#include <algorithm>

namespace Solvane::Lookup {

bool Lane::suits(Task const& task) const
{
    if (isLeaving ||
        std::any_of(task.failures.begin(), task.failures.end(),
                    [&](Failure const& failure) { return failure.server == server->index; })) {
        return false;
    }
    std::string const* const preference = task.preference();
    if (preference != nullptr && *preference != server->uri) {
        return false;
    }
    if (!task.answer.wasRepeated || !isOpen()) {
        return true; // a lane being opened for a repeated task asks "Who am I?" before it is used
    }
    // A repeated task needs a connection that is newer than the broken one, as older ones to the
    // same server are probably broken too; and one that has answered, as the server may be shutting
    // down.
    return lease->hasAnswered && (task.brokeOn != server || lease->openedAt >= task.brokeAt);
}

bool Lane::hasRoom(std::size_t window) const
{
    return tasks.size() < std::min(window, server->windowLimit.load(std::memory_order_relaxed));
}

Clock::time_point Lane::silentAt(Clock::duration limit) const
{
    return std::max(lease->session.heardAt(), tasks.front()->sentAt) + limit;
}

void Lane::add(Task& task)
{
    tasks.push_back(&task);
    task.lane = this;
}

void Lane::remove(Task& task)
{
    tasks.erase(std::find(tasks.begin(), tasks.end(), &task));
    task.lane = nullptr;
}

Task* Lane::find(int messageId) const
{
    auto const found = std::find_if(tasks.begin(), tasks.end(), [messageId](Task const* task) {
        return task->messageId == messageId;
    });
    return found == tasks.end() ? nullptr : *found;
}

void Lane::waits(Waits& waits, Clock::duration silence) const
{
    if (!isOpen()) {
        lease->session.waits(waits);
    } else if (!tasks.empty()) {
        lease->session.waits(waits);
        waits.until(silentAt(silence));
    }
}

void Lane::end()
{
    if (isOpen() && !isDoubtful && tasks.empty()) {
        lease.giveBack();
    } else {
        lease.close();
    }
}

} // namespace Solvane::Lookup
