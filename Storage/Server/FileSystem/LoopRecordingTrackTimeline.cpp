#include "Storage/Server/FileSystem/LoopRecordingTrackTimeline.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Tools/MutexLock.h"
#include "Storage/Indexes/Ram/TrackTimelineReader.h"

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;

namespace {

// The answer for a time point of an empty track.
const TimePoint kNoTimePoint = TimePoint::FromNanoseconds(-1);

}  // namespace

LoopRecordingTrackTimeline::LoopRecordingTrackTimeline(LoopRecordingFileManagers& managers,
                                                       ChunkCacheManager& caches,
                                                       Monitoring& monitoring)
    : managers_(managers),
      caches_(caches),
      monitoring_(monitoring),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingTrackTimeline")) {}

void LoopRecordingTrackTimeline::GetRecordedRanges(const long& trackId,
                                                   const Protocol::TimePoint& from,
                                                   const Protocol::TimePoint& to,
                                                   const Protocol::TimePoint& maxGap,
                                                   Protocol::TimeRanges& ranges) {
    const TimePoint start = Converter::From(from);
    const TimePoint end = Converter::From(to);
    const TimePoint gap = Converter::From(maxGap);
    CheckWindow(trackId, start, end);
    if (gap < TimePoint()) {
        std::ostringstream text;
        text << "T" << trackId << ": the longest gap merged in a timeline cannot be negative ("
             << gap.ToNanoseconds() << "ns)";
        Fail(text.str());
    }
    std::vector<RecordedRanges::Range> found;
    ReadTrack(trackId, "read its recorded ranges", [&](const LoopRecordingFileManager& manager) {
        found = TrackTimelineReader(manager).GetRecordedRanges(start, end, gap);
    });
    for (const RecordedRanges::Range& range : found) {
        Protocol::TimeRange* out = ranges.add_ranges();
        *out->mutable_start() = Converter::To(range.start);
        *out->mutable_end() = Converter::To(range.end);
    }
}

void LoopRecordingTrackTimeline::ListChunks(const long& trackId, const Protocol::TimePoint& from,
                                            const Protocol::TimePoint& to, const long& limit,
                                            Protocol::ChunkSpans& chunks) {
    const TimePoint start = Converter::From(from);
    const TimePoint end = Converter::From(to);
    CheckWindow(trackId, start, end);
    if (limit < 1) {
        std::ostringstream text;
        text << "T" << trackId << ": cannot list at most " << limit << " chunks";
        Fail(text.str());
    }
    std::vector<TrackTimelineReader::Span> spans;
    bool truncated = false;
    ReadTrack(trackId, "list its chunks", [&](const LoopRecordingFileManager& manager) {
        spans = TrackTimelineReader(manager).ListChunks(start, end, static_cast<size_t>(limit),
                                                        truncated);
    });
    chunks.mutable_chunks()->Reserve(static_cast<int>(spans.size()));
    for (const TrackTimelineReader::Span& span : spans) {
        Protocol::ChunkSpan* out = chunks.add_chunks();
        *out->mutable_timepoint() = Converter::To(span.timepoint);
        *out->mutable_duration() = Converter::To(span.duration);
        out->set_size(span.size);
        out->set_sequence(span.sequence);
    }
    chunks.set_truncated(truncated);
}

void LoopRecordingTrackTimeline::GetTrackStatistics(const Protocol::Ids& trackIds,
                                                    Protocol::TrackStatisticsList& statistics) {
    std::vector<long> ids(trackIds.ids().begin(), trackIds.ids().end());
    if (ids.empty()) {
        ids = managers_.GetTrackIds();
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    for (long id : ids) {
        Protocol::TrackStatistics track;
        if (ReadStatistics(id, track))
            *statistics.add_tracks() = std::move(track);
    }
}

bool LoopRecordingTrackTimeline::ReadStatistics(long trackId, Protocol::TrackStatistics& out) {
    // Deletion holds the track's mutex: the index cannot go meanwhile.
    Moreld::Tools::MutexLock track(monitoring_.GetMutex(trackId));
    if (!managers_.Exists(trackId))
        return false;
    const LoopRecordingFileManager& manager = *managers_.GetManager(trackId);
    const TrackActivity& counters = manager.GetActivity();
    out.set_track_id(trackId);
    out.set_chunks_written(counters.GetChunks());
    out.set_bytes_written(counters.GetBytes());
    out.set_files_recycled(counters.GetRecycledFiles());
    out.set_protections(manager.GetProtectionCount());
    const std::optional<TrackTimelineReader::Extent> extent =
        TrackTimelineReader(manager).GetExtent();
    *out.mutable_oldest() = Converter::To(extent ? extent->oldest : kNoTimePoint);
    *out.mutable_newest() = Converter::To(extent ? extent->newest : kNoTimePoint);
    if (const ThreadedChunkCache* cache = caches_.FindChunkCache(trackId))
        out.set_cache_bytes(cache->GetCacheSize());
    return true;
}

void LoopRecordingTrackTimeline::ReadTrack(
    long trackId, const char* what,
    const std::function<void(const LoopRecordingFileManager&)>& read) {
    Moreld::Tools::MutexLock track(monitoring_.GetMutex(trackId));
    if (!managers_.Exists(trackId)) {
        std::ostringstream text;
        text << "Track " << trackId << " does not exist to " << what;
        Fail(text.str());
    }
    read(*managers_.GetManager(trackId));
}

void LoopRecordingTrackTimeline::CheckWindow(long trackId, const TimePoint& from,
                                             const TimePoint& to) const {
    if (to < from) {
        std::ostringstream text;
        text << "T" << trackId << ": timeline window ends at " << to << " (" << to.ToNanoseconds()
             << "ns) before it starts at " << from << " (" << from.ToNanoseconds() << "ns)";
        Fail(text.str());
    }
}

void LoopRecordingTrackTimeline::Fail(const std::string& message) const {
    MR_LOG(logger_, 30, message);
    throw std::runtime_error(message);
}
