#include "Host/Hls/TrackChunks.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "Host/Hls/LivePlaylist.h"
#include "Host/Hls/PlaylistWriter.h"
#include "Host/Hls/TrackReaderHandle.h"
#include "Host/Http/HttpMessage.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::hls {

namespace {

using host::HttpError;
using Moreld::Time::TimePoint;

// How far before the track's end a live window is looked for first; each
// retry looks four times further.
constexpr int64_t kFirstLookBackNs = 30'000'000'000;
constexpr long kPage = 1'000;

Protocol::TimePoint Proto(int64_t ns) {
    Protocol::TimePoint t;
    t.set_nanoseconds(ns);
    return t;
}

std::string Where(long trackId, int64_t from, int64_t to) {
    return "track " + std::to_string(trackId) + " between " +
           TimePoint::FromNanoseconds(from).ToString() + " and " +
           TimePoint::FromNanoseconds(to).ToString();
}

int64_t TotalDuration(const Protocol::ChunkSpans& chunks) {
    int64_t total = 0;
    for (const Protocol::ChunkSpan& chunk : chunks.chunks())
        total += chunk.duration().nanoseconds();
    return total;
}

}  // namespace

MoreldStorageApi::ITrackTimeline& TrackChunks::Timeline() {
    if (!service_.trackTimeline)
        throw HttpError(503, "this storage cannot list the chunks of its tracks");
    return *service_.trackTimeline;
}

bool TrackChunks::TrackKnown(long trackId) {
    try {
        OpenTrackReader(service_, trackId);
        return true;
    } catch (const HttpError&) {
        return false;
    }
}

void TrackChunks::List(long trackId, int64_t from, int64_t to, long limit,
                       Protocol::ChunkSpans& chunks) {
    try {
        Timeline().ListChunks(trackId, Proto(from), Proto(to), limit, chunks);
    } catch (const HttpError&) {
        throw;
    } catch (const std::runtime_error&) {
        if (!TrackKnown(trackId))
            throw HttpError(404, "no track " + std::to_string(trackId));
        throw;
    }
}

Protocol::ChunkSpans TrackChunks::Range(long trackId, int64_t from, int64_t to) {
    if (to <= from)
        throw HttpError(400, "empty range: " + Where(trackId, from, to));
    Protocol::ChunkSpans chunks;
    List(trackId, from, to, kMaxChunks, chunks);
    if (chunks.truncated())
        throw HttpError(400, "more than " + std::to_string(kMaxChunks) + " chunks on " +
                                 Where(trackId, from, to) + ": ask for a shorter range");
    if (chunks.chunks_size() == 0)
        throw HttpError(404, "nothing recorded on " + Where(trackId, from, to));
    return chunks;
}

Protocol::ChunkSpans TrackChunks::ListAll(long trackId, int64_t from, int64_t to) {
    Protocol::ChunkSpans all;
    for (;;) {
        Protocol::ChunkSpans page;
        List(trackId, from, to, kPage, page);
        for (Protocol::ChunkSpan& chunk : *page.mutable_chunks())
            *all.add_chunks() = std::move(chunk);
        if (all.chunks_size() > kMaxChunks)
            all.mutable_chunks()->DeleteSubrange(0, all.chunks_size() - kMaxChunks);
        if (!page.truncated() || page.chunks_size() == 0)
            return all;
        const Protocol::ChunkSpan& last = all.chunks(all.chunks_size() - 1);
        // The next page starts after the last chunk listed.
        from = last.timepoint().nanoseconds() + std::max<int64_t>(1, last.duration().nanoseconds());
    }
}

Protocol::ChunkSpans TrackChunks::Newest(long trackId) {
    Protocol::Ids ids;
    ids.add_ids(trackId);
    Protocol::TrackStatisticsList statistics;
    Timeline().GetTrackStatistics(ids, statistics);
    if (statistics.tracks_size() == 0)
        throw HttpError(404, "no track " + std::to_string(trackId));
    const Protocol::TimePoint& beginning = statistics.tracks(0).oldest();
    const Protocol::TimePoint& end = statistics.tracks(0).newest();
    if (end.nanoseconds() < 0)
        throw HttpError(404, "nothing recorded on track " + std::to_string(trackId));
    for (int64_t back = kFirstLookBackNs;; back *= 4) {
        const int64_t from = std::max(beginning.nanoseconds(), end.nanoseconds() - back);
        Protocol::ChunkSpans tail = ListAll(trackId, from, end.nanoseconds() + 1);
        const int64_t wanted =
            LivePlaylist::kWindowTargets * PlaylistWriter::TargetDuration(tail) * 1'000'000'000;
        const bool enough = TotalDuration(tail) >= wanted || tail.chunks_size() >= kMaxChunks;
        if (enough || from == beginning.nanoseconds() || back > INT64_MAX / 8) {
            if (tail.chunks_size() == 0)
                throw HttpError(404, "nothing recorded on track " + std::to_string(trackId));
            return tail;
        }
    }
}

}  // namespace loopstore::hls
