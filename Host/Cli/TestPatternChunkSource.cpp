#include "Host/Cli/TestPatternChunkSource.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace loopstore::cli {

namespace {

media::TestPatternEncoder::Options EncoderOptions(const TestPatternChunkSource::Options& o) {
    media::TestPatternEncoder::Options encoder;
    encoder.snow = o.snow;
    return encoder;
}

}  // namespace

TestPatternChunkSource::TestPatternChunkSource(int64_t trackId, Options options)
    : trackId_(trackId), options_(options), encoder_(EncoderOptions(options)) {}

bool TestPatternChunkSource::Ended() const {
    const bool timeUp = options_.totalDuration > TimePoint() && produced_ >= options_.totalDuration;
    const bool bytesUp = options_.totalBytes > 0 && bytes_ >= options_.totalBytes;
    return timeUp || bytesUp;
}

bool TestPatternChunkSource::WaitUntil(TimePoint due) const {
    for (;;) {
        if (options_.stop != nullptr && options_.stop->load())
            return false;
        const TimePoint left = due - TimePoint::Now();
        if (left <= TimePoint())
            return true;
        const int64_t step = std::min<int64_t>(left.ToNanoseconds(), 100'000'000);
        std::this_thread::sleep_for(std::chrono::nanoseconds(step));
    }
}

bool TestPatternChunkSource::Next(TimePoint start, SourceChunk& out) {
    if (Ended())
        return false;
    TimePoint drawnAt = start;
    if (options_.paced) {
        // A camera hands a group of pictures over once its last picture is taken.
        if (nextDue_ == TimePoint())
            nextDue_ = TimePoint::Now() + options_.chunkDuration;
        if (!WaitUntil(nextDue_))
            return false;
        drawnAt = nextDue_ - options_.chunkDuration;
        nextDue_ += options_.chunkDuration;
    }
    const int frames = encoder_.FramesIn(options_.chunkDuration.ToNanoseconds());
    out.payload = encoder_.EncodeGroup(trackId_, drawnAt.ToNanoseconds(), frames);
    out.duration = options_.chunkDuration;
    produced_ += options_.chunkDuration;
    bytes_ += out.payload.size();
    return true;
}

}  // namespace loopstore::cli
