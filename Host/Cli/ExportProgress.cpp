#include "Host/Cli/ExportProgress.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace loopstore::cli {

ExportProgress::ExportProgress(std::ostream& out, bool enabled, int64_t from, int64_t to)
    : out_(out), enabled_(enabled && to > from), from_(from), to_(to) {}

void ExportProgress::Update(int64_t time) {
    if (!enabled_)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - last_ < std::chrono::milliseconds(100))
        return;
    last_ = now;
    drawn_ = true;
    const int64_t done = std::clamp(time, from_, to_) - from_;
    char line[96];
    std::snprintf(
        line, sizeof line, "\rexporting: %.1f s of %.1f s (%d%%) ", static_cast<double>(done) / 1e9,
        static_cast<double>(to_ - from_) / 1e9,
        static_cast<int>(100 * static_cast<double>(done) / static_cast<double>(to_ - from_)));
    out_ << line << std::flush;
}

void ExportProgress::Done() {
    if (drawn_)
        out_ << "\r\033[K" << std::flush;
    drawn_ = false;
}

}  // namespace loopstore::cli
