// How many searches may be in flight on one connection to a server.
#ifndef SOLVANE_LOOKUP_SRC_WINDOW_H
#define SOLVANE_LOOKUP_SRC_WINDOW_H

#include <algorithm>
#include <cstddef>

namespace Solvane::Lookup {

/// Servers close a connection with too many pending requests and do not announce their limit: slapd
/// allows 100 without a bind and 1,000 with one (conn_max_pending). The window finds the limit as
/// TCP finds the capacity of a path (RFC 5681). When a connection is lost with n searches in
/// flight, the threshold becomes n/2 and so does the window; it becomes 1 if that connection never
/// answered a search. Then each answer adds 1 up to the threshold (doubling per round trip), and
/// each full window of answers adds 1 above it. Example: 32, lost -> 16, ... 17, ... 18. Not
/// thread-safe: guarded by the pool's mutex.
class Window {
public:
    explicit Window(std::size_t longest)
        : m_longest(longest), m_limit(longest), m_threshold(longest)
    {
    }

    std::size_t limit() const { return m_limit; }
    /// Whether answers widen it.
    bool isNarrow() const { return m_limit < m_longest; }

    void answered(std::size_t count)
    {
        for (; count != 0 && isNarrow(); --count) {
            if (m_limit < m_threshold) {
                ++m_limit;
            } else if (++m_answered >= m_limit) {
                ++m_limit;
                m_answered = 0;
            }
        }
    }

    /// @param inFlight     searches in flight when the connection was lost
    /// @param hasAnswered  the connection had answered a search
    void lost(std::size_t inFlight, bool hasAnswered)
    {
        if (inFlight < 2) {
            return; // a single search cannot be too many
        }
        m_threshold = inFlight / 2;
        m_limit = std::min(m_limit, hasAnswered ? m_threshold : 1);
        m_answered = 0;
    }

private:
    std::size_t m_longest;
    std::size_t m_limit;
    std::size_t m_threshold; ///< up to here it grows by one for each answer
    std::size_t m_answered = 0;
};

} // namespace Solvane::Lookup

#endif
