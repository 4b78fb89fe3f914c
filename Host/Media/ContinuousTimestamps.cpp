#include "Host/Media/ContinuousTimestamps.h"

#include <algorithm>

namespace loopstore::media {

std::optional<int64_t> ContinuousTimestamps::Jump(int stream, int64_t dts) const {
    const auto it = last_.find(stream);
    if (it == last_.end() || !it->second.inRun)
        return std::nullopt;
    const int64_t step = dts - it->second.inputDts;
    if (step < 0 || step > kMaxStep)
        return step;
    return std::nullopt;
}

void ContinuousTimestamps::Rejoin(int64_t dts) {
    offset_ = end_ - dts;
    started_ = true;
    // The steps of the old run say nothing of the new one.
    for (auto& [stream, last] : last_)
        last.inRun = false;
}

void ContinuousTimestamps::Map(int stream, int64_t& dts, int64_t& pts, int64_t duration) {
    if (!started_)
        Rejoin(dts);
    auto [it, first] = last_.try_emplace(stream);
    Last& last = it->second;
    const int64_t inputDts = dts;
    dts += offset_;
    pts += offset_;
    if (last.inRun && inputDts > last.inputDts)
        last.step = inputDts - last.inputDts;
    // A muxer refuses a dts that does not increase.
    if (!first)
        dts = std::max(dts, last.outputDts + 1);
    pts = std::max(pts, dts);
    last.inputDts = inputDts;
    last.outputDts = dts;
    last.inRun = true;
    end_ = std::max(end_, pts + (duration > 0 ? duration : last.step));
}

}  // namespace loopstore::media
