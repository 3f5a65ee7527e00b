// Makes pipelines when they are needed, and drops them when they are done.
#include "Pipelines.h"

#include <algorithm>

namespace Solvane::Lookup {

Pipeline* PipelinePair::answering()
{
    if (finding.hasAnswer()) {
        return &finding;
    }
    return binding.hasAnswer() ? &binding : nullptr;
}

void PipelinePair::run()
{
    finding.run();
    if (binding.isBusy()) {
        binding.run();
    }
}

void PipelinePair::flush()
{
    finding.flush();
    finding.collect(); // may begin binds
    binding.flush();
    binding.collect();
}

void PipelinePair::waits(Waits& waits) const
{
    finding.waits(waits);
    binding.waits(waits);
}

void PipelinePair::rest()
{
    for (Pipeline* const pipeline : {&finding, &binding}) {
        if (!pipeline->isBusy()) {
            pipeline->rest();
        }
    }
}

PipelinePair& Pipelines::newest()
{
    if (m_links.empty() || !m_engine.isCurrent(*m_links.back().shared)) {
        auto shared = m_engine.current();
        Settings const& settings = shared->settings;
        m_links.emplace_back(std::move(shared), settings.connections, settings.window,
                             settings.verifyConnections, m_order);
        removeIdle();
    }
    return m_links.back();
}

bool Pipelines::isIdle() const
{
    return std::all_of(m_links.begin(), m_links.end(),
                       [](PipelinePair const& link) { return link.isIdle(); });
}

bool Pipelines::isBusy() const
{
    return std::any_of(m_links.begin(), m_links.end(),
                       [](PipelinePair const& link) { return link.isBusy(); });
}

/// The pipeline with the next answer; null if there is none. In the order of the keys, only the
/// first pipeline counts: it has the oldest key.
Pipeline* Pipelines::answering() const
{
    for (PipelinePair const& link : m_links) {
        if (Pipeline* const pipeline = const_cast<PipelinePair&>(link).answering()) {
            return pipeline;
        }
        if (m_order == Pipeline::Order::ofKeys && !link.isIdle()) {
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
    for (PipelinePair& link : m_links) {
        count += link.finding.cancel(tag) + link.binding.cancel(tag);
        link.flush();
    }
    removeIdle();
    return count;
}

void Pipelines::run()
{
    for (PipelinePair& link : m_links) {
        link.run();
    }
    removeIdle();
}

void Pipelines::flush()
{
    for (PipelinePair& link : m_links) {
        link.flush();
    }
}

void Pipelines::waits(Waits& waits) const
{
    for (PipelinePair const& link : m_links) {
        link.waits(waits);
    }
}

void Pipelines::excuse(Clock::duration held)
{
    for (PipelinePair& link : m_links) {
        link.finding.excuse(held); // passwords are verified from event loops only
    }
}

void Pipelines::excuseServers(Clock::time_point since)
{
    for (PipelinePair& link : m_links) {
        link.finding.excuseServers(since);
        link.binding.excuseServers(since);
    }
}

unsigned long Pipelines::connectionChanges() const
{
    unsigned long changes = m_pastChanges;
    for (PipelinePair const& link : m_links) {
        changes += link.connectionChanges();
    }
    return changes;
}

void Pipelines::restIfDone()
{
    for (auto link = m_links.begin(); link != m_links.end();) {
        auto const current = link++;
        if (current->isIdle()) {
            remove(current);
        } else {
            current->rest();
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
    for (PipelinePair& link : m_links) {
        link.finding.disown();
        link.binding.disown();
    }
    rest();
}

Pipelines::Links::iterator Pipelines::remove(Links::iterator link)
{
    m_pastChanges += link->connectionChanges() + 1; // also for the pools' events
    return m_links.erase(link);
}

/// Removes earlier pipelines without keys and answers.
void Pipelines::removeIdle()
{
    for (auto link = m_links.begin(); link != m_links.end() && std::next(link) != m_links.end();) {
        link = link->isIdle() ? remove(link) : std::next(link);
    }
}

} // namespace Solvane::Lookup
