// The public, blocking calls on top of the pipeline.
#include <solvane/lookup/LDAPLookup.h>

#include "Pipeline.h"
#include "Shared.h"
#include "Verifier.h"

#include <utility>

#include <poll.h>

namespace Solvane {

namespace {

using Lookup::Clock;
using Lookup::Pipeline;
using Lookup::Waits;
using Supply = LDAPLookup::Supply;

LDAPLookup::Settings const& checked(LDAPLookup::Settings const& settings)
{
    validate(settings);
    return settings;
}

/// Moves keys from a source through a pipeline to a sink.
class Run {
public:
    Run(Pipeline& pipeline, LDAPLookup::Source const& source, int descriptor,
        LDAPLookup::Sink const& sink)
        : m_pipeline(pipeline), m_source(source), m_descriptor(descriptor), m_sink(sink)
    {
    }

    void toTheEnd()
    {
        while (m_isWanted && (m_isSupplied || !m_pipeline.isIdle())) {
            supply();
            m_pipeline.run();
            emit();
            if (!m_isWanted || (m_isSupplied && m_mayHaveKeys && m_pipeline.wantsKeys())) {
                continue;
            }
            if (!m_pipeline.isIdle()) {
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
        while (m_isSupplied && m_mayHaveKeys && m_pipeline.wantsKeys()) {
            switch (ask(key, false)) {
            case Supply::key:
                m_pipeline.push(std::move(key));
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
        m_pipeline.excuse(Clock::now() - start);
        return supplied;
    }

    void emit()
    {
        while (m_isWanted && m_pipeline.hasAnswer()) {
            auto const start = Clock::now();
            Lookup::Task& task = m_pipeline.front();
            m_isWanted = m_sink(task.key, std::move(task.answer));
            m_pipeline.pop();
            m_pipeline.excuse(Clock::now() - start);
        }
    }

    void wait()
    {
        m_waits.clear();
        m_pipeline.waits(m_waits);
        bool const isHeard = m_descriptor != -1 && m_isSupplied && m_pipeline.wantsKeys();
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
        m_pipeline.rest();
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
            m_pipeline.push(std::move(key));
            break;
        case Supply::nothing:
            break;
        case Supply::end:
            m_isSupplied = false;
            break;
        }
    }

    Pipeline& m_pipeline;
    LDAPLookup::Source const& m_source;
    int const m_descriptor; ///< -1: the source blocks by itself
    LDAPLookup::Sink const& m_sink;
    Waits m_waits;
    bool m_isSupplied = true;  ///< the source has more
    bool m_mayHaveKeys = true; ///< the source may have a key now
    bool m_isWanted = true;    ///< the sink wants more
};

} // namespace

class LDAPLookup::Engine : public Lookup::Shared {
public:
    using Shared::Shared;
};

LDAPLookup::LDAPLookup(Settings const& settings)
    : m_engine(std::make_unique<Engine>(checked(settings)))
{
}

LDAPLookup::~LDAPLookup() = default;
LDAPLookup::LDAPLookup(LDAPLookup&& other) noexcept = default;
LDAPLookup& LDAPLookup::operator=(LDAPLookup&& other) noexcept = default;

LDAPLookup::Answer LDAPLookup::find(std::string const& address)
{
    Pipeline pipeline(*m_engine, 1, 1);
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
    Lookup::Verifier verifier(*m_engine, key, password);
    Waits waits;
    while (!verifier.isDone()) {
        waits.clear();
        verifier.waits(waits);
        waits.wait();
        verifier.advance();
    }
    return std::move(verifier.result());
}

void LDAPLookup::findAll(Source const& source, Sink const& sink) { findAll(source, -1, sink); }

void LDAPLookup::findAll(Source const& source, int descriptor, Sink const& sink)
{
    Pipeline pipeline(*m_engine, m_engine->settings.connections, m_engine->settings.window);
    Run(pipeline, source, descriptor, sink).toTheEnd();
}

LDAPLookup::Statistics LDAPLookup::statistics() const
{
    return {m_engine->pool.openedCount(), m_engine->reused, m_engine->pool.staleCount(),
            m_engine->repeated};
}

} // namespace Solvane
