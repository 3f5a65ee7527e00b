// The pipelines of a caller that may live longer than the settings.
#ifndef SOLVANE_LOOKUP_SRC_PIPELINES_H
#define SOLVANE_LOOKUP_SRC_PIPELINES_H

#include "Engine.h"
#include "Pipeline.h"

#include <list>
#include <memory>

namespace Solvane::Lookup {

/// A chain of pipelines: the last one takes new keys, with the settings in use; earlier ones exist
/// until their keys are done, with the settings that these began with. Not thread-safe.
class Pipelines : public NonCopyable {
public:
    Pipelines(Engine& engine, Pipeline::Order order) : m_engine(engine), m_order(order) {}

    /// The pipeline for new keys; valid until the next call of a function that is not const.
    Pipeline& latest();
    /// The settings for new keys.
    Settings const& settings() { return (void)latest(), m_links.back().shared->settings; }

    // As those of a pipeline

    bool isIdle() const;
    bool isBusy() const;
    bool hasAnswer() const { return answering() != nullptr; }
    Task& front() { return answering()->front(); }
    void pop();
    std::size_t cancel(std::uint64_t tag);
    void run();
    void flush();
    void waits(Waits& waits) const;
    void excuse(Clock::duration held);
    void excuseServers(Clock::time_point since);
    unsigned long connectionChanges() const;

    /// Returns the sessions of pipelines in which no key is under way. Lets go of settings.
    void restIfDone();
    /// Drops everything; no key may be under way.
    void rest();
    /// Drops everything, in a forked child.
    void disown();

private:
    struct Link {
        Link(std::shared_ptr<Shared> taken, Pipeline::Order order)
            : shared(std::move(taken)),
              pipeline(*shared, shared->settings.connections, shared->settings.window, order)
        {
        }
        std::shared_ptr<Shared> shared;
        Pipeline pipeline;
    };
    using Links = std::list<Link>;

    Pipeline* answering() const;
    Links::iterator remove(Links::iterator link);
    void removeIdle();

    Engine& m_engine;
    Pipeline::Order const m_order;
    Links m_links; ///< in the order of the settings
    unsigned long m_pastChanges = 0;
};

} // namespace Solvane::Lookup

#endif
