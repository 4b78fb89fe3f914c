#include "Host/Media/ClipCutter.h"

#include <iterator>
#include <optional>

#include "Host/Media/Demuxer.h"
#include "Host/Media/Muxer.h"

namespace loopstore::media {

namespace {

using Moreld::Time::TimePoint;

// How far before the start the cut looks for a key frame, in turn.
constexpr TimePoint kReachBack[] = {TimePoint::FromSeconds(10), TimePoint::FromSeconds(60),
                                    TimePoint::FromSeconds(300)};
// Read past the end so that the last frame before it is whole.
constexpr TimePoint kTail = TimePoint::FromSeconds(2);

// The holes that lie within [start, to).
std::vector<ExportedBytes::Gap> GapsWithin(const std::vector<ExportedBytes::Gap>& gaps,
                                           TimePoint start, TimePoint to) {
    std::vector<ExportedBytes::Gap> within;
    for (const ExportedBytes::Gap& gap : gaps)
        if (gap.to > start && gap.from < to)
            within.push_back(gap);
    return within;
}

}  // namespace

ClipCutter::Result ClipCutter::Cut(const Request& request, const OpenChunks& openChunks,
                                   const OpenMuxer& openMuxer,
                                   const ClipRemuxer::Progress& progress) {
    for (size_t i = 0;; ++i) {
        const TimePoint back = kReachBack[i];
        // Nothing lies further back than the track's beginning.
        const bool last =
            i + 1 == std::size(kReachBack) || request.from - back <= request.trackBeginning;
        Result result;
        if (Attempt(request, back, last, openChunks, openMuxer, progress, result))
            return result;
    }
}

bool ClipCutter::Attempt(const Request& request, TimePoint back, bool lastChance,
                         const OpenChunks& openChunks, const OpenMuxer& openMuxer,
                         const ClipRemuxer::Progress& progress, Result& result) {
    ExportedBytes bytes(openChunks(request.from - back, request.to + kTail), request.from,
                        request.to);
    std::optional<Demuxer> demuxer;
    try {
        demuxer.emplace(
            [&bytes](uint8_t* buffer, size_t size) { return bytes.Read(buffer, size); });
    } catch (const MediaError&) {
        if (bytes.ChunksInRange() == 0)
            throw NothingRecorded("nothing recorded on " + request.what);
        throw;
    }
    const std::unique_ptr<Muxer> muxer = openMuxer();
    ClipRemuxer remuxer(
        *demuxer, *muxer, [&bytes](int64_t pos, int64_t ts) { return bytes.TimeAt(pos, ts); },
        [&bytes](int64_t after, int64_t upTo) { return bytes.Splice(after, upTo); });
    const auto outcome =
        remuxer.Run(request.from.ToNanoseconds(), request.to.ToNanoseconds(), lastChance, progress);
    if (outcome == ClipRemuxer::Outcome::kNeedEarlier)
        return false;
    if (bytes.ChunksInRange() == 0)
        throw NothingRecorded("nothing recorded on " + request.what + " (a gap in the recording)");
    if (outcome == ClipRemuxer::Outcome::kEmpty)
        throw NothingRecorded("nothing playable recorded on " + request.what);
    muxer->Finish();
    result.clip = remuxer.summary();
    result.gaps =
        GapsWithin(bytes.Gaps(), TimePoint::FromNanoseconds(result.clip.start), request.to);
    result.chunks = bytes.ChunksInRange();
    result.bytes = bytes.BytesInRange();
    return true;
}

}  // namespace loopstore::media
