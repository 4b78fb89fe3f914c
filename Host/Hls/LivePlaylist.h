#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/ThreadAnnotations.h"

namespace loopstore::hls {

// The live playlists of tracks being recorded: a window of the newest
// chunks that slides as chunks are added and recycled.
//
// The window is the fewest newest chunks that last three target durations
// (all of them when the track is shorter), the least a live playlist may
// hold: a player starting near its end is a few segments behind the writer.
//
// Discontinuity sequence numbers must not go back from one load of the
// playlist to the next, although the chunks before the window are no longer
// listed: the numbers given to the segments of each track's last window are
// kept, and a window that shares no chunk with the last one starts a new
// number.
//
// Thread-safe: one instance serves every track.
class LivePlaylist {
  public:
    static constexpr int64_t kWindowTargets = 3;

    // The newest chunks of `tail` (ascending) that last at least
    // kWindowTargets x `targetDuration` seconds.
    static Protocol::ChunkSpans Window(const Protocol::ChunkSpans& tail, int64_t targetDuration);

    // The live playlist of track `trackId` whose newest chunks are `tail`
    // (ascending, at least one). The target duration covers the whole tail.
    std::string Write(long trackId, const Protocol::ChunkSpans& tail);

  private:
    // The discontinuity sequence number of the window's first segment;
    // remembers those of all its segments.
    uint64_t Number(long trackId, const Protocol::ChunkSpans& window);

    Moreld::Tools::Mutex mutex_;
    // Per track: chunk sequence -> discontinuity sequence number, for the
    // segments of the last window written.
    std::map<long, std::map<uint64_t, uint64_t>> numbers_ GUARDED_BY(mutex_);
};

}  // namespace loopstore::hls
