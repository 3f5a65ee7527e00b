// Validates the settings, and makes what lookups share.
#include "Engine.h"

#include "PoolsAtFork.h"

#include <solvane/session/Session.h>

namespace Solvane::Lookup {

namespace {

Settings const& checked(Settings const& settings)
{
    validate(settings);
    return settings;
}

std::shared_ptr<Shared> sharedWith(Settings const& settings, Shared const& other)
{
    requireSameConnections(checked(settings), other.settings);
    return std::make_shared<Shared>(settings, other);
}

} // namespace

Engine::Engine(Settings const& settings)
    : m_totals(std::make_shared<Totals>()),
      m_current(std::make_shared<Shared>(checked(settings), m_totals, nullptr)),
      m_newest(m_current.get())
{
    Session::initializeOpenLdap();
    PoolsAtFork::instance().add(m_mutex);
}

Engine::Engine(Settings const& settings, Engine const& other)
    : m_totals(other.m_totals), m_current(sharedWith(settings, *other.current())),
      m_newest(m_current.get())
{
    PoolsAtFork::instance().add(m_mutex);
}

Engine::~Engine() { PoolsAtFork::instance().remove(m_mutex); }

std::shared_ptr<Shared> Engine::current() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_current;
}

void Engine::reconfigure(Settings const& settings)
{
    auto const before = current();
    auto next = std::make_shared<Shared>(checked(settings), m_totals, before.get());
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_current.swap(next); // the earlier one is let go of after unlocking: it may close connections
    m_newest.store(m_current.get(), std::memory_order_relaxed);
}

} // namespace Solvane::Lookup
