// Makes pipelines when they are needed, and drops them when they are done.
#include "Pipelines.h"

#include <algorithm>

namespace Solvane::Lookup {

Pipeline& Pipelines::latest()
{
    if (m_links.empty() || !m_engine.isCurrent(*m_links.back().shared)) {
        m_links.emplace_back(m_engine.current(), m_order);
        removeIdle();
    }
    return m_links.back().pipeline;
}

bool Pipelines::isIdle() const
{
    return std::all_of(m_links.begin(), m_links.end(),
                       [](Link const& link) { return link.pipeline.isIdle(); });
}

bool Pipelines::isBusy() const
{
    return std::any_of(m_links.begin(), m_links.end(),
                       [](Link const& link) { return link.pipeline.isBusy(); });
}

/// The pipeline with the next answer; null if there is none. In the order of the keys, only the
/// first pipeline counts: it has the oldest key.
Pipeline* Pipelines::answering() const
{
    for (Link const& link : m_links) {
        if (link.pipeline.hasAnswer()) {
            return const_cast<Pipeline*>(&link.pipeline);
        }
        if (m_order == Pipeline::Order::ofKeys && !link.pipeline.isIdle()) {
            return nullptr;
        }
    }
    return nullptr;
}

void Pipelines::pop()
{
    answering()->pop();
    removeIdle();
}

std::size_t Pipelines::cancel(std::uint64_t tag)
{
    std::size_t count = 0;
    for (Link& link : m_links) {
        count += link.pipeline.cancel(tag);
        link.pipeline.flush();
    }
    removeIdle();
    return count;
}

void Pipelines::run()
{
    for (Link& link : m_links) {
        link.pipeline.run();
    }
    removeIdle();
}

void Pipelines::flush()
{
    for (Link& link : m_links) {
        link.pipeline.flush();
        link.pipeline.collect();
    }
}

void Pipelines::waits(Waits& waits) const
{
    for (Link const& link : m_links) {
        link.pipeline.waits(waits);
    }
}

void Pipelines::excuse(Clock::duration held)
{
    for (Link& link : m_links) {
        link.pipeline.excuse(held);
    }
}

void Pipelines::excuseServers(Clock::time_point since)
{
    for (Link& link : m_links) {
        link.pipeline.excuseServers(since);
    }
}

unsigned long Pipelines::connectionChanges() const
{
    unsigned long changes = m_pastChanges;
    for (Link const& link : m_links) {
        changes += link.pipeline.connectionChanges();
    }
    return changes;
}

void Pipelines::restIfDone()
{
    for (auto link = m_links.begin(); link != m_links.end();) {
        auto const current = link++;
        if (current->pipeline.isIdle()) {
            remove(current);
        } else if (!current->pipeline.isBusy()) {
            current->pipeline.rest();
        }
    }
}

void Pipelines::rest()
{
    while (!m_links.empty()) {
        remove(m_links.begin());
    }
}

void Pipelines::disown()
{
    for (Link& link : m_links) {
        link.pipeline.disown();
    }
    rest();
}

Pipelines::Links::iterator Pipelines::remove(Links::iterator link)
{
    m_pastChanges += link->pipeline.connectionChanges() + 1; // also for the pool's event
    return m_links.erase(link);
}

/// Removes earlier pipelines without keys and answers.
void Pipelines::removeIdle()
{
    for (auto link = m_links.begin(); link != m_links.end() && std::next(link) != m_links.end();) {
        link = link->pipeline.isIdle() ? remove(link) : std::next(link);
    }
}

} // namespace Solvane::Lookup
