// A histogram of latencies in text.
#ifndef SOLVANE_TOOL_HISTOGRAM_H
#define SOLVANE_TOOL_HISTOGRAM_H

#include <string>
#include <vector>

namespace Solvane::Tool {

/// Stores every measurement, so percentiles are exact.
class Histogram {
public:
    void add(double milliseconds);

    /// The `percent`th percentile: 0 is the minimum, 100 the maximum. The histogram must not be
    /// empty.
    double percentile(unsigned int percent) const;

    /// "min 0.8, p50 1.2, p99 4.0, max 4.0 ms". The histogram must not be empty.
    std::string summary() const;
    /// A line for each range: its upper bound, a bar, a count. Bounds are 1, 2 and 5 times powers
    /// of ten, from the first range with a measurement to the last.
    std::vector<std::string> bars() const;

private:
    std::vector<double> m_sorted;
};

} // namespace Solvane::Tool

#endif
