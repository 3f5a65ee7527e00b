// The statistics of a running service: read from Prometheus' text format, written for people and
// programs.
#ifndef SOLVANE_TOOL_STATUS_REPORT_H
#define SOLVANE_TOOL_STATUS_REPORT_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Solvane::Tool {

class Json;

/// The metrics of the service at one moment. A value.
class StatusReport {
public:
    /// @return empty if the text is not that of the service
    static std::optional<StatusReport> parse(std::string_view text);

    /// Tables for people.
    /// @param before   an earlier report: rates and latencies are of the time since then; null: since
    ///                 the service started, and no rates
    /// @param seconds  since `before`
    /// @param now      seconds since 1970
    std::string text(StatusReport const* before, double seconds, double now) const;
    /// One object, without a line end.
    /// @param now  as for `text`
    std::string json(double now) const;

private:
    using Labels = std::map<std::string, std::string>;
    /// One line of the text format.
    struct Sample {
        Labels labels;
        double value;
    };
    /// A histogram: pairs of an upper bound in seconds and the number of values up to it.
    using Histogram = std::map<double, double>;

    void addLine(std::string_view line);
    std::vector<Sample> const& samples(std::string const& name) const;
    double value(std::string const& name, Labels const& labels = {}) const;
    std::vector<std::string> maps() const;
    double requests(std::string const& map) const;
    double replies(std::string const& map, char const* reply) const;
    Histogram histogram(std::string const& name, Labels const& labels,
                        StatusReport const* before) const;
    std::string headText(double now) const;
    std::string mapsText(StatusReport const* before, double seconds) const;
    std::string loginsText(StatusReport const* before) const;
    std::string serversText() const;
    void appendServers(Json& json) const;

    std::map<std::string, std::vector<Sample>> m_samples; ///< by name, without the common prefix
};

} // namespace Solvane::Tool

#endif
