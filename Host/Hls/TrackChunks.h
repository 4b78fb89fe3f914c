#pragma once

#include <cstdint>

#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Services/Service.h"

namespace loopstore::hls {

// What the playlists need to know of a track's chunks, asked of the
// storage's index (ITrackTimeline) and never read. Failures are
// HttpErrors: 404 for an unknown or empty track or range, 400 for a range
// too long for one playlist, 503 when the storage has no timeline.
//
// Refers to the service, which must outlive it. Thread-safe as the
// service's timeline is.
class TrackChunks {
  public:
    // The most chunks one playlist lists.
    static constexpr long kMaxChunks = 10'000;

    explicit TrackChunks(MoreldStorageApi::Service& service) : service_(service) {}

    // The chunks overlapping [from, to) (ns), at least one.
    Protocol::ChunkSpans Range(long trackId, int64_t from, int64_t to);

    // The newest chunks, at least one: enough of them for a live window
    // (LivePlaylist::Window), fewer only when the track holds no more.
    Protocol::ChunkSpans Newest(long trackId);

  private:
    MoreldStorageApi::ITrackTimeline& Timeline();
    // ListChunks, with an unknown track answered 404.
    void List(long trackId, int64_t from, int64_t to, long limit, Protocol::ChunkSpans& chunks);
    // Every chunk overlapping [from, to), page by page, keeping the newest
    // kMaxChunks.
    Protocol::ChunkSpans ListAll(long trackId, int64_t from, int64_t to);
    bool TrackKnown(long trackId);

    MoreldStorageApi::Service& service_;
};

}  // namespace loopstore::hls
