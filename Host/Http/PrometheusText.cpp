#include "Host/Http/PrometheusText.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace loopstore::host {

namespace {

// Backslash and line feed escaped, and double quotes when `quotes`.
std::string Escape(const std::string& text, bool quotes) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '\\' || (c == '"' && quotes))
            out.push_back('\\');
        if (c == '\n')
            out += "\\n";
        else
            out.push_back(c);
    }
    return out;
}

}  // namespace

std::string PrometheusText::EscapeLabel(const std::string& value) {
    return Escape(value, true);
}

std::string PrometheusText::EscapeHelp(const std::string& text) {
    return Escape(text, false);
}

std::string PrometheusText::Number(double value) {
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "+Inf" : "-Inf";
    char buffer[32];
    if (value == std::floor(value) && std::fabs(value) < 1e15)
        std::snprintf(buffer, sizeof buffer, "%.0f", value);
    else if (std::snprintf(buffer, sizeof buffer, "%.15g", value) > 0 &&
             std::strtod(buffer, nullptr) != value)
        std::snprintf(buffer, sizeof buffer, "%.17g", value);  // only exact if longer
    return buffer;
}

void PrometheusText::Family(const std::string& name, const std::string& type,
                            const std::string& help) {
    text_ += "# HELP " + name + " " + EscapeHelp(help) + "\n";
    text_ += "# TYPE " + name + " " + type + "\n";
}

void PrometheusText::Sample(const std::string& name, const Labels& labels, double value) {
    text_ += name;
    if (!labels.empty()) {
        text_ += '{';
        for (std::size_t i = 0; i < labels.size(); ++i) {
            if (i > 0)
                text_ += ',';
            text_ += labels[i].first + "=\"" + EscapeLabel(labels[i].second) + '"';
        }
        text_ += '}';
    }
    text_ += ' ' + Number(value) + '\n';
}

void PrometheusText::Histogram(const std::string& name, const Labels& labels,
                               const std::vector<double>& bounds,
                               const std::vector<uint64_t>& cumulative, double sum,
                               uint64_t count) {
    Labels withBound = labels;
    withBound.emplace_back("le", "");
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        withBound.back().second = Number(bounds[i]);
        Sample(name + "_bucket", withBound, static_cast<double>(cumulative.at(i)));
    }
    withBound.back().second = "+Inf";
    Sample(name + "_bucket", withBound, static_cast<double>(count));
    Sample(name + "_sum", labels, sum);
    Sample(name + "_count", labels, static_cast<double>(count));
}

}  // namespace loopstore::host
