// A bounded map that forgets what was stored first.
#ifndef SOLVANE_SERVICE_RECENT_H
#define SOLVANE_SERVICE_RECENT_H

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>
#include <utility>

namespace Solvane::Service {

/// Values by name, at most `capacity`; storing another one forgets the oldest. Not thread-safe.
template <typename Value> class Recent {
public:
    explicit Recent(std::size_t capacity) : m_capacity(capacity) {}

    /// Null if it is unknown, or forgotten.
    Value* find(std::string const& name)
    {
        auto const found = m_places.find(name);
        return found == m_places.end() ? nullptr : &found->second->second;
    }

    /// Stores a value in place of the one with this name.
    Value& store(std::string const& name, Value value)
    {
        forget(name);
        if (m_places.size() >= m_capacity && !m_values.empty()) {
            forget(std::string(m_values.front().first));
        }
        m_values.emplace_back(name, std::move(value));
        m_places[name] = std::prev(m_values.end());
        return m_values.back().second;
    }

    void forget(std::string const& name)
    {
        auto const found = m_places.find(name);
        if (found != m_places.end()) {
            m_values.erase(found->second);
            m_places.erase(found);
        }
    }

    std::size_t size() const { return m_values.size(); }

private:
    using Values = std::list<std::pair<std::string, Value>>;

    std::size_t const m_capacity;
    Values m_values; ///< the oldest first
    std::unordered_map<std::string, typename Values::iterator> m_places;
};

} // namespace Solvane::Service

#endif
