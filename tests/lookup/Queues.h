// Event loops of tests, with one queue.
#ifndef SOLVANE_TESTS_LOOKUP_QUEUES_H
#define SOLVANE_TESTS_LOOKUP_QUEUES_H

#include "Lookups.h"

#include <solvane/lookup/LDAPLookupQueue.h>

#include <chrono>
#include <cstddef>
#include <map>

namespace SolvaneTest {

using Tag = Solvane::LDAPLookupQueue::Tag;

/// Waits until the descriptor is readable; false after the time.
bool awaitReadable(int descriptor, std::chrono::milliseconds time = std::chrono::seconds(10));

/// A loop that takes answers only when it is woken.
class QueueLoop {
public:
    explicit QueueLoop(Solvane::LDAPLookupQueue& queue) : m_queue(queue) {}

    /// Runs until this many were taken in total; false: nothing woke it for ten seconds.
    bool runUntil(std::size_t answers);
    /// Runs for a time.
    void runFor(std::chrono::milliseconds time);
    /// Takes what is there.
    void take();

    /// The answers by tag; the last one of each.
    std::map<Tag, Answered> const& answers() const { return m_answers; }
    Solvane::LDAPLookup::Answer const& answer(Tag tag) const { return m_answers.at(tag).answer; }
    /// The verifications by tag; the last one of each.
    std::map<Tag, Solvane::Lookup::Verification> const& verifications() const
    {
        return m_verifications;
    }
    Solvane::Lookup::Verification const& verification(Tag tag) const
    {
        return m_verifications.at(tag);
    }
    /// How many answers and verifications were taken.
    std::size_t count() const { return m_count; }
    /// How often the loop was woken.
    std::size_t wakeUps() const { return m_wakeUps; }

private:
    Solvane::LDAPLookupQueue& m_queue;
    std::map<Tag, Answered> m_answers;
    std::map<Tag, Solvane::Lookup::Verification> m_verifications;
    std::size_t m_count = 0;
    std::size_t m_wakeUps = 0;
};

} // namespace SolvaneTest

#endif
