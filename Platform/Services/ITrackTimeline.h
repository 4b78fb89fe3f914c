#pragma once

#include "Platform/Protocol/Protocol.pb.h"

namespace MoreldStorageApi {

// What a track holds over time, answered from the storage's index without
// reading chunks: for timelines, playlists and metrics.
//
// Owned by the Service that holds it; called from many host threads at once
// and must be thread-safe. Failures are thrown as std::runtime_error; an
// unknown track throws. Time points and durations are Protocol::TimePoint
// nanoseconds.
class ITrackTimeline {
  public:
    virtual ~ITrackTimeline() = default;

    // The recorded ranges of the track that overlap [from, to), ascending:
    // consecutive chunks are merged into one range while each starts no later
    // than `maxGap` after the previous one ends. Ranges are not clipped to
    // [from, to). A negative `maxGap` or `to` before `from` throws.
    virtual void GetRecordedRanges(const long& trackId, const Protocol::TimePoint& from,
                                   const Protocol::TimePoint& to, const Protocol::TimePoint& maxGap,
                                   Protocol::TimeRanges& ranges) = 0;

    // The chunks of the track that overlap [from, to), ascending, at most
    // `limit` of them (then `truncated` is set). A limit below 1 throws.
    virtual void ListChunks(const long& trackId, const Protocol::TimePoint& from,
                            const Protocol::TimePoint& to, const long& limit,
                            Protocol::ChunkSpans& chunks) = 0;

    // One entry per known track among `trackIds` (every track when empty),
    // in ascending id; unknown ids are skipped.
    virtual void GetTrackStatistics(const Protocol::Ids& trackIds,
                                    Protocol::TrackStatisticsList& statistics) = 0;
};

}  // namespace MoreldStorageApi
