// The pipelines of a caller that may live longer than the settings.
#ifndef SOLVANE_LOOKUP_SRC_PIPELINES_H
#define SOLVANE_LOOKUP_SRC_PIPELINES_H

#include "Engine.h"
#include "Pipeline.h"

#include <list>
#include <memory>

namespace Solvane::Lookup {

/// The pipelines of one caller with the same settings: passwords go on from one to the other. Not
/// thread-safe.
struct PipelinePair : public NonCopyable {
    /// @param lanes       maximum of sessions for searches
    /// @param bindLanes   maximum of sessions for binds
    PipelinePair(std::shared_ptr<Shared> taken, std::size_t lanes, std::size_t window,
                 std::size_t bindLanes, Pipeline::Order order)
        : shared(std::move(taken)),
          binding(*shared->logins, bindLanes, 1, Pipeline::Order::ofAnswers),
          finding(*shared, lanes, window, order, &binding)
    {
    }

    bool isIdle() const { return finding.isIdle() && binding.isIdle(); }
    bool isBusy() const { return finding.isBusy() || binding.isBusy(); }
    /// The pipeline with the next answer; null if there is none.
    Pipeline* answering();
    void run();
    void flush();
    void waits(Waits& waits) const;
    /// Returns the sessions on which nothing is under way.
    void rest();
    unsigned long connectionChanges() const
    {
        return finding.connectionChanges() + binding.connectionChanges();
    }

    std::shared_ptr<Shared> const shared;
    Pipeline binding;
    Pipeline finding; ///< of keys, and of the entries for passwords
};

/// A chain of pipelines: the last pair takes new keys, with the settings in use; earlier ones exist
/// until their keys are done, with the settings that these began with. Not thread-safe.
class Pipelines : public NonCopyable {
public:
    Pipelines(Engine& engine, Pipeline::Order order) : m_engine(engine), m_order(order) {}

    /// The pipeline for new keys; valid until the next call of a function that is not const.
    Pipeline& latest() { return newest().finding; }
    /// Whether a password pushed into it could be verified soon.
    bool wantsLogins() { return newest().finding.wantsKeys() && newest().binding.wantsKeys(); }
    /// The settings for new keys.
    Settings const& settings() { return newest().shared->settings; }

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
    using Links = std::list<PipelinePair>;

    PipelinePair& newest();
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
