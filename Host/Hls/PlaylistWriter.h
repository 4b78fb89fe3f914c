#pragma once

#include <cstdint>
#include <string>

#include "Platform/Protocol/Protocol.pb.h"

namespace loopstore::hls {

// Writes HLS media playlists (RFC 8216) of stored chunks, one segment per
// chunk, from what the index says of them (Protocol::ChunkSpans): nothing is
// read. Segment URIs are relative ("segments/<time point ns>.ts"), so the
// playlist is served next to them.
//
// Each segment lasts its chunk's duration; a chunk that does not start where
// the one before it ended (kGapTolerance either way) begins a discontinuity.
// The first segment and the first after each discontinuity carry the wall
// time of their chunk (EXT-X-PROGRAM-DATE-TIME): a player maps media time to
// recording time with it. Media sequence numbers are the chunks' own.
//
// Stateless; any thread.
class PlaylistWriter {
  public:
    PlaylistWriter() = delete;

    // Shorter differences between a chunk's start and the previous chunk's
    // end are clock rounding, not a hole in the recording.
    static constexpr int64_t kGapToleranceNs = 5'000'000;

    // True when `next` starts where `previous` ends.
    static bool Continues(const Protocol::ChunkSpan& previous, const Protocol::ChunkSpan& next);
    // Seconds, the longest chunk's duration rounded up (at least 1).
    static int64_t TargetDuration(const Protocol::ChunkSpans& chunks);

    // A finished playlist (EXT-X-PLAYLIST-TYPE:VOD, EXT-X-ENDLIST).
    // Precondition: `chunks` holds at least one chunk, in ascending time.
    static std::string Vod(const Protocol::ChunkSpans& chunks);

    // A live playlist of `window`, the newest chunks. `discontinuities`
    // is the discontinuity sequence number of its first segment;
    // `targetDuration` (seconds) covers every chunk of the window.
    // Precondition: `window` holds at least one chunk, in ascending time.
    static std::string Live(const Protocol::ChunkSpans& window, uint64_t discontinuities,
                            int64_t targetDuration);

    // "2026-11-22T17:30:00.123Z": the date-time form players parse.
    static std::string DateTime(int64_t nanoseconds);
};

}  // namespace loopstore::hls
