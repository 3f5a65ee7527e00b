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
template <typename Value, typename Key = std::string> class Recent {
public:
    explicit Recent(std::size_t capacity) : m_capacity(capacity) {}

    /// Null if it is unknown, or forgotten.
    Value* find(Key const& name)
    {
        auto const found = m_places.find(name);
        return found == m_places.end() ? nullptr : &found->second->second;
    }

    /// Stores a value in place of the one with this name.
    Value& store(Key const& name, Value value)
    {
        forget(name);
        if (m_places.size() >= m_capacity && !m_values.empty()) {
            forgetOldest();
        }
        m_values.emplace_back(name, std::move(value));
        m_places[name] = std::prev(m_values.end());
        return m_values.back().second;
    }

    void forget(Key const& name)
    {
        auto const found = m_places.find(name);
        if (found != m_places.end()) {
            m_values.erase(found->second);
            m_places.erase(found);
        }
    }

    /// Forgets the oldest ones, as long as the condition is true for the next one's value.
    template <typename Condition> void forgetWhile(Condition const& condition)
    {
        while (!m_values.empty() && condition(m_values.front().second)) {
            forgetOldest();
        }
    }

    std::size_t size() const { return m_values.size(); }

private:
    using Values = std::list<std::pair<Key, Value>>;

    void forgetOldest()
    {
        m_places.erase(m_values.front().first);
        m_values.pop_front();
    }

    std::size_t const m_capacity;
    Values m_values; ///< the oldest first
    std::unordered_map<Key, typename Values::iterator> m_places;
};

} // namespace Solvane::Service

#endif
