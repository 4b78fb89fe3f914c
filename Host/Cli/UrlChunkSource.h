#pragma once

extern "C" {
#include <libavcodec/packet.h>
}

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "Host/Cli/Backoff.h"
#include "Host/Cli/IChunkSource.h"

namespace loopstore::cli {

class AvInput;
class TsRemuxer;

// A camera or network stream read through libavformat and cut into MPEG-TS
// chunks (remuxed, never transcoded), each starting at a key frame of the
// video stream once it covers `chunkDuration`; a stream that has shown no
// key frame for 10 s is cut every `chunkDuration` instead. Durations follow
// the stream's time stamps.
//
// The source outlives the camera: when the stream ends, fails or stalls (no
// packet for `stallTimeout`, reported as "stream stalled") the partial chunk
// is delivered and the url is opened again with capped exponential backoff,
// the next chunk starting at a key frame. It ends only when `stop` is set.
//
// Refers to `stop` and `notes` (where losses and reconnections are
// reported), which must outlive it. One thread.
class UrlChunkSource : public IChunkSource {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    struct Options {
        std::string url;
        TimePoint chunkDuration;
        std::chrono::milliseconds stallTimeout{5000};
    };

    UrlChunkSource(Options options, const std::atomic<bool>& stop, std::ostream& notes);
    ~UrlChunkSource() override;

    bool Next(TimePoint start, SourceChunk& out) override;

  private:
    // Opens the url, trying again with backoff; false when stopped first.
    bool Open();
    // Drops the connection after `why`; true when a partial chunk went to
    // `out`.
    bool Lost(const std::string& why, SourceChunk& out);
    // Muxes one packet; true when it began a new chunk and the finished one
    // went to `out`.
    bool Take(AVPacket& packet, SourceChunk& out);
    // Ends the chunk, which lasted `duration` by the stream's clock (the
    // nominal duration when that is not positive); false when it is empty.
    bool Emit(TimePoint duration, SourceChunk& out);
    // From the chunk's start to the last time stamp of the key stream.
    TimePoint Elapsed() const;
    bool Stopped() const { return stop_.load(); }
    void Note(const std::string& text);

    const Options options_;
    const std::atomic<bool>& stop_;
    std::ostream& notes_;
    Backoff backoff_;
    std::unique_ptr<AvInput> input_;
    std::unique_ptr<TsRemuxer> muxer_;
    AVPacket* packet_;
    bool keyFrameSeen_ = false;
    // Times of the key stream, in ns of its clock.
    std::optional<int64_t> chunkStart_;
    std::optional<int64_t> last_;
    std::optional<int64_t> lastKey_;
    std::map<int, int64_t> lastDts_;  // per input stream, for the muxer's order
};

}  // namespace loopstore::cli
