// Parses metrics, and writes them as tables or JSON.
#include "StatusReport.h"

#include "Json.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace Solvane::Tool {

namespace {

constexpr std::string_view prefix = "solvane_ldapd_";

/// The reply to each outcome of a request, as the service's documents have them.
constexpr std::pair<char const*, char const*> replyTo[] = {
    {"found", "OK"},           {"not found", "NOTFOUND"}, {"skipped", "NOTFOUND"},
    {"bad key", "NOTFOUND"},   {"try later", "TEMP"},     {"refused", "TEMP"},
    {"misconfigured", "TEMP"},
};

using Row = std::vector<std::string>;

/// Columns as wide as their widest text; the first one flush left, the others flush right.
std::string table(std::vector<Row> const& rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (Row const& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string out;
    for (Row const& row : rows) {
        out += fmt::format("{:<{}}", row.front(), widths.front());
        for (std::size_t i = 1; i < row.size(); ++i) {
            out += fmt::format("  {:>{}}", row[i], widths[i]);
        }
        out += '\n';
    }
    return out + '\n';
}

std::string whole(double number) { return fmt::format("{:.0f}", number); }

std::string duration(double seconds)
{
    auto const total = static_cast<long>(std::max(seconds, 0.0));
    long const days = total / 86400;
    std::string const time =
        fmt::format("{}:{:02}:{:02}", total / 3600 % 24, total / 60 % 60, total % 60);
    return days == 0 ? time : fmt::format("{} day{} {}", days, days == 1 ? "" : "s", time);
}

/// An estimate in milliseconds, from the histogram as Prometheus makes it: values are spread evenly
/// in each bucket. Empty without values; infinite above the last bound.
std::optional<double> quantile(std::map<double, double> const& histogram, double part)
{
    double const total = histogram.empty() ? 0 : histogram.rbegin()->second;
    if (total <= 0) {
        return std::nullopt;
    }
    double const rank = part * total;
    double lower = 0;
    double below = 0;
    for (auto const& [bound, count] : histogram) {
        if (count >= rank) {
            double const inside = count == below ? 1 : (rank - below) / (count - below);
            return std::isinf(bound) ? bound : (lower + (bound - lower) * inside) * 1000;
        }
        lower = bound;
        below = count;
    }
    return std::nullopt;
}

std::string latencyText(std::map<double, double> const& histogram, double part)
{
    auto const found = quantile(histogram, part);
    if (!found) {
        return "-";
    }
    if (std::isinf(*found)) {
        auto const last = std::prev(histogram.end(), histogram.size() < 2 ? 1 : 2);
        return fmt::format(">{:.0f}", last->first * 1000);
    }
    return fmt::format(*found < 10 ? "{:.1f}" : "{:.0f}", *found);
}

void appendNumber(Json& json, char const* name, double number)
{
    std::string const text = fmt::format("{}", number);
    json.key(name)->RawValue(text.data(), text.size(), rapidjson::kNumberType);
}

/// @param number  null if it is empty or infinite
void appendNumber(Json& json, char const* name, std::optional<double> number)
{
    if (number && !std::isinf(*number)) {
        appendNumber(json, name, std::round(*number * 1000) / 1000);
    } else {
        json.key(name)->Null();
    }
}

/// Takes a label, as in `map="users"`, and what separates it from the next one, off the text.
std::optional<std::pair<std::string, std::string>> takeLabel(std::string_view& text)
{
    auto const equals = text.find("=\"");
    if (equals == std::string_view::npos) {
        return std::nullopt;
    }
    std::pair<std::string, std::string> label(text.substr(0, equals), "");
    for (auto i = equals + 2; i < text.size(); ++i) {
        if (text[i] == '"') {
            text.remove_prefix(std::min(i + (text.substr(i + 1, 1) == "," ? 2 : 1), text.size()));
            return label;
        }
        bool const isEscaped = text[i] == '\\' && i + 1 < text.size();
        i += isEscaped ? 1 : 0;
        label.second += isEscaped && text[i] == 'n' ? '\n' : text[i];
    }
    return std::nullopt;
}

} // namespace

std::optional<StatusReport> StatusReport::parse(std::string_view text)
{
    StatusReport report;
    while (!text.empty()) {
        auto const end = std::min(text.find('\n'), text.size());
        report.addLine(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return report.m_samples.count("info") == 0 ? std::nullopt
                                               : std::optional<StatusReport>(std::move(report));
}

/// A malformed line, and one of another program, is ignored.
void StatusReport::addLine(std::string_view line)
{
    auto const blank = line.rfind(' ');
    if (line.substr(0, prefix.size()) != prefix || blank == std::string_view::npos) {
        return;
    }
    Sample sample = {{}, 0};
    std::string_view const number = line.substr(blank + 1);
    auto const [stop, error] =
        std::from_chars(number.data(), number.data() + number.size(), sample.value);
    if (error != std::errc() || stop != number.data() + number.size()) {
        return;
    }
    line = line.substr(prefix.size(), blank - prefix.size());
    auto const brace = std::min(line.find('{'), line.size());
    std::string const name(line.substr(0, brace));
    line.remove_prefix(std::min(brace + 1, line.size()));
    while (auto label = takeLabel(line)) {
        sample.labels.insert(std::move(*label));
    }
    m_samples[name].push_back(std::move(sample));
}

std::vector<StatusReport::Sample> const& StatusReport::samples(std::string const& name) const
{
    static std::vector<Sample> const none;
    auto const found = m_samples.find(name);
    return found == m_samples.end() ? none : found->second;
}

/// The sum of the samples that have all of these labels.
double StatusReport::value(std::string const& name, Labels const& labels) const
{
    double sum = 0;
    for (Sample const& sample : samples(name)) {
        if (std::includes(sample.labels.begin(), sample.labels.end(), labels.begin(),
                          labels.end())) {
            sum += sample.value;
        }
    }
    return sum;
}

std::vector<std::string> StatusReport::maps() const
{
    std::vector<std::string> maps;
    for (Sample const& sample : samples("cache_hits_total")) {
        maps.push_back(sample.labels.count("map") == 0 ? "" : sample.labels.at("map"));
    }
    return maps;
}

double StatusReport::requests(std::string const& map) const
{
    return value("requests_total", {{"map", map}});
}

/// The number of requests with this reply: OK, NOTFOUND or TEMP.
double StatusReport::replies(std::string const& map, char const* reply) const
{
    double sum = 0;
    for (auto const& [outcome, its] : replyTo) {
        if (std::string_view(its) == reply) {
            sum += value("requests_total", {{"map", map}, {"outcome", outcome}});
        }
    }
    double const withoutValue = value("found_without_value_total", {{"map", map}});
    std::string_view const word = reply;
    return sum + (word == "OK" ? -withoutValue : word == "NOTFOUND" ? withoutValue : 0);
}

StatusReport::Histogram StatusReport::histogram(std::string const& name, Labels const& labels,
                                                StatusReport const* before) const
{
    Histogram histogram;
    for (Sample const& sample : samples(name + "_bucket")) {
        if (std::includes(sample.labels.begin(), sample.labels.end(), labels.begin(),
                          labels.end())) {
            std::string const bound =
                sample.labels.count("le") == 0 ? "+Inf" : sample.labels.at("le");
            double seconds = std::numeric_limits<double>::infinity();
            if (bound != "+Inf") {
                std::from_chars(bound.data(), bound.data() + bound.size(), seconds);
            }
            histogram[seconds] +=
                sample.value -
                (before == nullptr ? 0 : before->value(name + "_bucket", sample.labels));
        }
    }
    return histogram;
}

std::string StatusReport::text(StatusReport const* before, double seconds, double now) const
{
    bool const isSameRun =
        before != nullptr && before->value("start_time_seconds") == value("start_time_seconds");
    StatusReport const* const earlier = isSameRun && seconds > 0 ? before : nullptr;
    return headText(now) + mapsText(earlier, seconds) + loginsText(earlier) + serversText();
}

std::string StatusReport::headText(double now) const
{
    auto const& info = samples("info").front().labels;
    std::string out = fmt::format("solvane-ldapd {}, up {}\n",
                                  info.count("version") == 0 ? "" : oneLine(info.at("version")),
                                  duration(now - value("start_time_seconds")));
    out +=
        fmt::format("clients: {:.0f} connected, {:.0f} accepted, {:.0f} turned away, {:.0f} closed "
                    "for protocol errors\n",
                    value("clients"), value("clients_accepted_total"),
                    value("clients_turned_away_total"), value("protocol_errors_total"));
    out += fmt::format("settings: {:.0f} reloads, {:.0f} refused", value("reloads_total"),
                       value("reloads_failed_total"));
    double const unknown = value("unknown_map_total");
    out += unknown == 0 ? "" : fmt::format("; {:.0f} requests for unknown maps", unknown);
    return out + "\n\n";
}

std::string StatusReport::mapsText(StatusReport const* before, double seconds) const
{
    std::vector<Row> rows = {{"MAP", "REQUESTS", "PER S", "OK", "NOTFOUND", "TEMP", "KEPT",
                              "SHARED", "P50 MS", "P99 MS"}};
    for (std::string const& map : maps()) {
        Labels const labels = {{"map", map}};
        auto const times = histogram("request_seconds", labels, before);
        double const rate =
            before == nullptr ? 0 : (requests(map) - before->requests(map)) / seconds;
        rows.push_back({oneLine(map), whole(requests(map)),
                        before == nullptr ? "-" : fmt::format("{:.1f}", rate),
                        whole(replies(map, "OK")), whole(replies(map, "NOTFOUND")),
                        whole(replies(map, "TEMP")), whole(value("cache_hits_total", labels)),
                        whole(value("shared_answers_total", labels)), latencyText(times, 0.5),
                        latencyText(times, 0.99)});
    }
    return table(rows);
}

/// Empty if there was no login.
std::string StatusReport::loginsText(StatusReport const* before) const
{
    double const all = value("logins_total");
    double const limited = value("logins_limited_total");
    if (all + limited == 0) {
        return {};
    }
    double const accepted = value("logins_total", {{"outcome", "accepted"}});
    double trouble = 0;
    for (char const* const outcome : {"try later", "refused", "misconfigured"}) {
        trouble += value("logins_total", {{"outcome", outcome}});
    }
    auto const times = histogram("login_seconds", {}, before);
    return table(
        {{"LOGINS", "ACCEPTED", "DENIED", "TROUBLE", "NOT TRIED", "P50 MS", "P99 MS"},
         {whole(all + limited), whole(accepted), whole(all - accepted - trouble), whole(trouble),
          whole(limited), latencyText(times, 0.5), latencyText(times, 0.99)}});
}

std::string StatusReport::serversText() const
{
    std::vector<Row> rows = {
        {"SERVER", "POOL", "STATE", "IDLE", "IN USE", "OPENED", "FAILED", "ANSWERED", "REPEATED"}};
    for (Sample const& server : samples("server_up")) {
        Labels const& labels = server.labels;
        double const backOff = value("server_backoff_seconds", labels);
        std::string const state = server.value != 0 ? "up"
                                  : backOff > 0     ? fmt::format("skipped for {:.0f} s", backOff)
                                                    : "on trial";
        Row row;
        for (char const* const name : {"server", "pool"}) {
            row.push_back(labels.count(name) == 0 ? "" : oneLine(labels.at(name)));
        }
        row.push_back(state);
        for (char const* const name :
             {"connections_idle", "connections_in_use", "connections_opened_total",
              "connections_failed_total", "searches_answered_total", "searches_repeated_total"}) {
            row.push_back(whole(value(name, labels)));
        }
        rows.push_back(std::move(row));
    }
    std::string out = table(rows);
    out.pop_back(); // nothing follows
    return out;
}

void StatusReport::appendServers(Json& json) const
{
    json.key("servers")->StartArray();
    for (Sample const& server : samples("server_up")) {
        json->StartObject();
        for (auto const& [name, text] : server.labels) {
            json.key(name).value(text);
        }
        json.key("up")->Bool(server.value != 0);
        for (auto const& [member, name] :
             {std::pair("backoff_s", "server_backoff_seconds"),
              std::pair("idle", "connections_idle"), std::pair("in_use", "connections_in_use"),
              std::pair("opened", "connections_opened_total"),
              std::pair("failed", "connections_failed_total"),
              std::pair("answered", "searches_answered_total"),
              std::pair("repeated", "searches_repeated_total")}) {
            appendNumber(json, member, value(name, server.labels));
        }
        json->EndObject();
    }
    json->EndArray();
}

std::string StatusReport::json(double now) const
{
    std::string out;
    Json json(out);
    json->StartObject();
    auto const& info = samples("info").front().labels;
    json.key("version").value(info.count("version") == 0 ? "" : info.at("version"));
    appendNumber(json, "uptime_s", std::floor(std::max(now - value("start_time_seconds"), 0.0)));
    appendNumber(json, "clients", value("clients"));
    appendNumber(json, "clients_accepted", value("clients_accepted_total"));
    appendNumber(json, "clients_turned_away", value("clients_turned_away_total"));
    appendNumber(json, "protocol_errors", value("protocol_errors_total"));
    appendNumber(json, "unknown_map", value("unknown_map_total"));
    appendNumber(json, "reloads", value("reloads_total"));
    appendNumber(json, "reloads_failed", value("reloads_failed_total"));
    json.key("maps")->StartArray();
    for (std::string const& map : maps()) {
        Labels const labels = {{"map", map}};
        json->StartObject();
        json.key("map").value(map);
        appendNumber(json, "requests", requests(map));
        for (auto const& [member, reply] :
             {std::pair("ok", "OK"), std::pair("notfound", "NOTFOUND"),
              std::pair("temp", "TEMP")}) {
            appendNumber(json, member, replies(map, reply));
        }
        appendNumber(json, "kept", value("cache_hits_total", labels));
        appendNumber(json, "shared", value("shared_answers_total", labels));
        auto const times = histogram("request_seconds", labels, nullptr);
        appendNumber(json, "p50_ms", quantile(times, 0.5));
        appendNumber(json, "p99_ms", quantile(times, 0.99));
        json->EndObject();
    }
    json->EndArray();
    json.key("logins")->StartObject();
    for (Sample const& sample : samples("logins_total")) {
        std::string outcome =
            sample.labels.count("outcome") == 0 ? "" : sample.labels.at("outcome");
        std::replace(outcome.begin(), outcome.end(), ' ', '_');
        appendNumber(json, outcome.c_str(), sample.value);
    }
    appendNumber(json, "not_tried", value("logins_limited_total"));
    json->EndObject();
    appendServers(json);
    json->EndObject();
    return out;
}

} // namespace Solvane::Tool
