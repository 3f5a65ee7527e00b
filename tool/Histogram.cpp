// Percentiles, ranges and bars.
#include "Histogram.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Solvane::Tool {

namespace {

/// Upper bounds of the ranges in milliseconds; the last range has none.
constexpr double ends[] = {0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000};
constexpr std::size_t longestBar = 40; // columns

} // namespace

void Histogram::add(double milliseconds)
{
    m_sorted.insert(std::upper_bound(m_sorted.begin(), m_sorted.end(), milliseconds), milliseconds);
}

double Histogram::percentile(unsigned int percent) const
{
    std::size_t const rank = (m_sorted.size() * percent + 99) / 100; // counted from 1
    return m_sorted[std::max<std::size_t>(rank, 1) - 1];
}

std::string Histogram::summary() const
{
    return fmt::format("min {:.1f}, p50 {:.1f}, p99 {:.1f}, max {:.1f} ms", percentile(0),
                       percentile(50), percentile(99), percentile(100));
}

std::vector<std::string> Histogram::bars() const
{
    std::vector<std::size_t> counts(std::size(ends) + 1);
    for (double const measured : m_sorted) {
        auto const* const end = std::upper_bound(std::begin(ends), std::end(ends), measured);
        ++counts[static_cast<std::size_t>(end - std::begin(ends))];
    }
    auto const isUsed = [](std::size_t count) { return count != 0; };
    auto const first = std::find_if(counts.begin(), counts.end(), isUsed);
    auto const last = std::find_if(counts.rbegin(), counts.rend(), isUsed).base();

    std::vector<std::string> lines;
    for (auto count = first; count < last; ++count) {
        auto const range = static_cast<std::size_t>(count - counts.begin());
        std::string const label = range < std::size(ends)
                                      ? fmt::format("< {:g}", ends[range])
                                      : fmt::format(">= {:g}", ends[std::size(ends) - 1]);
        std::size_t const length = (*count * longestBar + m_sorted.size() - 1) / m_sorted.size();
        lines.push_back(fmt::format("{:>7} ms  {:<{}}  {}", label, std::string(length, '#'),
                                    longestBar, *count));
    }
    return lines;
}

} // namespace Solvane::Tool
