#include "Host/Cli/Output.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace loopstore::cli {

void Output::Print(const nlohmann::json& value, const std::string& text) {
    if (json_) {
        out_ << value.dump(2) << '\n';
        return;
    }
    out_ << text;
    if (!text.empty() && text.back() != '\n')
        out_ << '\n';
    out_.flush();
}

void Output::Error(bool json, std::ostream& err, const std::string& message, int code) {
    if (json)
        err << nlohmann::json({{"error", message}, {"exit_code", code}}).dump() << '\n';
    else
        err << "loopstore: " << message << '\n';
    err.flush();
}

std::string Output::Bytes(uint64_t bytes) {
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    std::string text = std::to_string(bytes) + " B";
    if (bytes < 1024)
        return text;
    double value = static_cast<double>(bytes);
    int unit = -1;
    while (value >= 1024 && unit < 3) {
        value /= 1024;
        ++unit;
    }
    char scaled[32];
    std::snprintf(scaled, sizeof scaled, " (%.1f %s)", value, kUnits[unit]);
    return text + scaled;
}

std::string Output::Rate(uint64_t bytes, double seconds) {
    char text[48];
    std::snprintf(text, sizeof text, "%.2f MB/s",
                  static_cast<double>(bytes) / std::max(seconds, 1e-6) / 1e6);
    return text;
}

std::string Output::Time(Moreld::Time::TimePoint tp) {
    return tp.ToNanoseconds() == -1 ? "-" : tp.ToString();
}

nlohmann::json Output::TimeJson(Moreld::Time::TimePoint tp) {
    return tp.ToNanoseconds() == -1 ? nlohmann::json() : nlohmann::json(tp.ToString());
}

}  // namespace loopstore::cli
