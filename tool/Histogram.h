// Latencies as a small picture in text.
#ifndef SOLVANE_TOOL_HISTOGRAM_H
#define SOLVANE_TOOL_HISTOGRAM_H

#include <string>
#include <vector>

namespace Solvane::Tool {

/// Keeps every measurement, so that its figures are exact.
class Histogram {
public:
    void add(double milliseconds);

    /// The smallest measurement that `percent` of all do not exceed: 0 the least, 100 the greatest.
    /// Not of an empty histogram.
    double percentile(unsigned int percent) const;

    /// "min 0.8, p50 1.2, p99 4.0, max 4.0 ms". Not of an empty histogram.
    std::string summary() const;
    /// A line for each range, which begin at 1, 2 and 5 times powers of ten: its end, a bar, a count.
    /// From the first range with a measurement to the last.
    std::vector<std::string> bars() const;

private:
    std::vector<double> m_sorted;
};

} // namespace Solvane::Tool

#endif
