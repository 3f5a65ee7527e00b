// Validates the settings, and makes what lookups share.
#include "Engine.h"

namespace Solvane::Lookup {

namespace {

Settings const& checked(Settings const& settings)
{
    validate(settings);
    return settings;
}

} // namespace

Engine::Engine(Settings const& settings)
    : m_current(std::make_shared<Shared>(checked(settings), m_totals))
{
}

} // namespace Solvane::Lookup
