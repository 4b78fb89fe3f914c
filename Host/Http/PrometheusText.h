#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace loopstore::host {

// Writes metrics in the Prometheus text exposition format (version 0.0.4):
// a HELP and a TYPE line per family, then its samples, label values and
// help texts escaped. Not thread-safe; one per answer.
class PrometheusText {
  public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

    // Starts a family. `type`: "counter", "gauge", "histogram" or "untyped".
    // Precondition: each name once per answer; samples of a family follow it.
    void Family(const std::string& name, const std::string& type, const std::string& help);

    // One sample line: `name` is the family's name, or a histogram's name
    // with its suffix (_bucket, _sum, _count).
    void Sample(const std::string& name, const Labels& labels, double value);

    // The samples of one histogram: `cumulative[i]` observations at most
    // `bounds[i]` seconds, then the +Inf bucket (`count`), sum and count.
    void Histogram(const std::string& name, const Labels& labels, const std::vector<double>& bounds,
                   const std::vector<uint64_t>& cumulative, double sum, uint64_t count);

    const std::string& Text() const { return text_; }

    // A label value with backslash, double quote and line feed escaped.
    static std::string EscapeLabel(const std::string& value);
    // A help text with backslash and line feed escaped.
    static std::string EscapeHelp(const std::string& text);
    // Integers without a fraction; +Inf, -Inf and NaN as Prometheus spells them.
    static std::string Number(double value);

  private:
    std::string text_;
};

}  // namespace loopstore::host
