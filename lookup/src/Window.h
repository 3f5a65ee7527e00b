// How many searches a server takes at once on one connection.
#ifndef SOLVANE_LOOKUP_SRC_WINDOW_H
#define SOLVANE_LOOKUP_SRC_WINDOW_H

#include <algorithm>
#include <cstddef>

namespace Solvane::Lookup {

/// Servers close a connection with more pending requests than they allow, and do not say how many
/// that is: slapd 100 without a bind and 1,000 with one (conn_max_pending). The window finds it as TCP
/// finds the capacity of a path (RFC 5681): a connection lost with searches in flight halves it, or
/// brings it down to 1 if that connection never answered; it doubles up to half of what was lost, and
/// grows by one for each window of answers from there. Not synchronised: the pool guards it.
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

    /// @param inFlight     when the connection was lost
    /// @param hasAnswered  a search, on that connection
    void lost(std::size_t inFlight, bool hasAnswered)
    {
        if (inFlight < 2) {
            return; // that search was alone
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
