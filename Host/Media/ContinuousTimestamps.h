#pragma once

#include <cstdint>
#include <map>
#include <optional>

extern "C" {
#include <libavutil/rational.h>
}

namespace loopstore::media {

// Lays the packets kept in a clip on one timeline that starts at 0, never
// goes back and has no holes: a run of packets that does not follow the
// previous one (a gap in the recording, a restarted encoder) is moved to
// start where the previous run ended. Players then see a known duration and
// steady timestamps; the real gaps are reported by the caller.
//
// One offset serves every stream, so streams stay in sync within a run.
// Timestamps are in kClock units. A value type; one thread at a time.
class ContinuousTimestamps {
  public:
    // The MPEG clock: exact for transport streams.
    static constexpr AVRational kClock{1, 90000};
    // Larger steps of one stream's clock are jumps, not pauses (as when the
    // recorder cut the stream).
    static constexpr int64_t kMaxStep = 10 * 90000;

    // The step from the stream's last dts to `dts` when it goes back, or
    // ahead by more than kMaxStep; nothing otherwise.
    std::optional<int64_t> Jump(int stream, int64_t dts) const;
    // The next packet mapped, whose dts is `dts`, begins a new run: it is
    // placed where the timeline ends. The first packet always begins one.
    void Rejoin(int64_t dts);
    // Maps a packet's timestamps in place; `duration` may be 0 (unknown).
    void Map(int stream, int64_t& dts, int64_t& pts, int64_t duration);
    // The end of the timeline: the latest end of a mapped packet.
    int64_t End() const { return end_; }

  private:
    struct Last {
        int64_t inputDts = 0;
        int64_t outputDts = 0;
        int64_t step = 0;    // the stream's last dts step, for packets without a duration
        bool inRun = false;  // inputDts belongs to the current run
    };

    bool started_ = false;
    int64_t offset_ = 0;
    int64_t end_ = 0;
    std::map<int, Last> last_;
};

}  // namespace loopstore::media
