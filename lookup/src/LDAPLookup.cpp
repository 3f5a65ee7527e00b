// The public, blocking calls on top of the pipeline.
#include <solvane/lookup/LDAPLookup.h>

#include "Engine.h"
#include "Pipeline.h"
#include "Pipelines.h"

#include <utility>

#include <poll.h>

namespace Solvane {

namespace {

using Lookup::Clock;
using Lookup::Pipeline;
using Lookup::Pipelines;
using Lookup::Waits;
using Supply = LDAPLookup::Supply;

/// Moves keys from a source through pipelines to a sink.
class Run {
public:
    Run(Pipelines& pipelines, LDAPLookup::Source const& source, int descriptor,
        LDAPLookup::Sink const& sink)
        : m_pipelines(pipelines), m_source(source), m_descriptor(descriptor), m_sink(sink)
    {
    }

    void toTheEnd()
    {
        while (m_isWanted && (m_isSupplied || !m_pipelines.isIdle())) {
            supply();
            m_pipelines.run();
            emit();
            if (!m_isWanted ||
                (m_isSupplied && m_mayHaveKeys && m_pipelines.latest().wantsKeys())) {
                continue;
            }
            if (!m_pipelines.isIdle()) {
                wait();
            } else if (m_isSupplied) {
                rest();
            }
        }
    }

private:
    void supply()
    {
        std::string key;
        while (m_isSupplied && m_mayHaveKeys && m_pipelines.latest().wantsKeys()) {
            switch (ask(key, false)) {
            case Supply::key:
                m_pipelines.latest().push(std::move(key));
                key.clear();
                break;
            case Supply::nothing:
                m_mayHaveKeys = false;
                return;
            case Supply::end:
                m_isSupplied = false;
                break;
            }
        }
    }

    Supply ask(std::string& key, bool mayWait)
    {
        auto const start = Clock::now();
        Supply const supplied = m_source(key, mayWait);
        m_pipelines.excuse(Clock::now() - start);
        return supplied;
    }

    void emit()
    {
        while (m_isWanted && m_pipelines.hasAnswer()) {
            auto const start = Clock::now();
            Lookup::Task& task = m_pipelines.front();
            m_isWanted = m_sink(task.key, std::move(task.answer));
            m_pipelines.pop();
            m_pipelines.excuse(Clock::now() - start);
        }
    }

    void wait()
    {
        m_waits.clear();
        m_pipelines.waits(m_waits);
        bool const isHeard = m_descriptor != -1 && m_isSupplied && m_pipelines.latest().wantsKeys();
        if (isHeard) {
            m_waits.add(m_descriptor, POLLIN);
        }
        m_waits.wait();
        m_mayHaveKeys = m_mayHaveKeys || m_descriptor == -1 ||
                        (isHeard && m_waits.descriptors().back().revents != 0);
    }

    /// All answers are out and the source has no key: returns the sessions to the pool while
    /// waiting.
    void rest()
    {
        m_pipelines.rest();
        m_mayHaveKeys = true;
        if (m_descriptor != -1) {
            m_waits.clear();
            m_waits.add(m_descriptor, POLLIN);
            m_waits.wait();
            return;
        }
        std::string key;
        switch (ask(key, true)) {
        case Supply::key:
            m_pipelines.latest().push(std::move(key));
            break;
        case Supply::nothing:
            break;
        case Supply::end:
            m_isSupplied = false;
            break;
        }
    }

    Pipelines& m_pipelines;
    LDAPLookup::Source const& m_source;
    int const m_descriptor; ///< -1: the source blocks by itself
    LDAPLookup::Sink const& m_sink;
    Waits m_waits;
    bool m_isSupplied = true;  ///< the source has more
    bool m_mayHaveKeys = true; ///< the source may have a key now
    bool m_isWanted = true;    ///< the sink wants more
};

} // namespace

LDAPLookup::LDAPLookup(Settings const& settings)
    : m_engine(std::make_unique<Lookup::Engine>(settings))
{
}

LDAPLookup::LDAPLookup(Settings const& settings, LDAPLookup const& other)
    : m_engine(std::make_unique<Lookup::Engine>(settings, *other.m_engine))
{
}

LDAPLookup::~LDAPLookup() = default;
LDAPLookup::LDAPLookup(LDAPLookup&& other) noexcept = default;
LDAPLookup& LDAPLookup::operator=(LDAPLookup&& other) noexcept = default;

LDAPLookup::Answer LDAPLookup::find(std::string const& address)
{
    auto const shared = m_engine->current();
    Pipeline pipeline(*shared, 1, shared->settings.window); // for the members of a group
    pipeline.push(address);
    pipeline.flush(); // sends the search
    Waits waits;
    while (!pipeline.hasAnswer()) {
        waits.clear();
        pipeline.waits(waits);
        waits.wait();
        pipeline.run();
    }
    return std::move(pipeline.front().answer);
}

LDAPLookup::Verification LDAPLookup::verify(std::string const& key, std::string const& password)
{
    Lookup::PipelinePair pipelines(m_engine->current(), 1, 1, 1, Pipeline::Order::ofAnswers);
    pipelines.finding.push(key, Clock::now(), 0, std::make_unique<Lookup::Login>(password));
    pipelines.flush(); // sends the search
    Waits waits;
    while (pipelines.answering() == nullptr) {
        pipelines.rest(); // others may use the connection of the search from now on
        waits.clear();
        pipelines.waits(waits);
        waits.wait();
        pipelines.run();
    }
    return std::move(pipelines.answering()->front().login->verification);
}

void LDAPLookup::findAll(Source const& source, Sink const& sink) { findAll(source, -1, sink); }

void LDAPLookup::findAll(Source const& source, int descriptor, Sink const& sink)
{
    Pipelines pipelines(*m_engine, Pipeline::Order::ofKeys);
    Run(pipelines, source, descriptor, sink).toTheEnd();
}

void LDAPLookup::reconfigure(Settings const& settings) { m_engine->reconfigure(settings); }

LDAPLookup::Statistics LDAPLookup::statistics() const
{
    Lookup::Totals const& totals = m_engine->totals();
    return {totals.opened, totals.reused, totals.stale, totals.repeated};
}

std::vector<LDAPLookup::ServerStatistics> LDAPLookup::servers() const
{
    return m_engine->current()->pool.servers();
}

std::vector<LDAPLookup::ServerStatistics> LDAPLookup::verifyServers() const
{
    return m_engine->current()->logins->pool.servers();
}

} // namespace Solvane
