#pragma once

#include <functional>
#include <string>

#include "Platform/Logging/Logger.h"
#include "Platform/Services/ITrackTimeline.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Server/Monitoring.h"

// The host's timeline service: recorded ranges, chunk lists and per-track
// statistics, answered from the tracks' RAM indexes (TrackTimelineReader)
// without reading chunks or databases; the bytes a track has in the writers'
// caches come from the cache registry, which the index knows nothing of.
//
// Each call holds the track's monitoring mutex while it reads the track's
// index, so that a deletion cannot destroy the index under it; the index's
// own lock is held only to copy (see TrackTimelineReader).
//
// Refers to the registries and the monitoring owned by the service factory,
// which outlive it. Safe from any thread.
class LoopRecordingTrackTimeline : public MoreldStorageApi::ITrackTimeline {
  public:
    LoopRecordingTrackTimeline(LoopRecordingFileManagers& managers, ChunkCacheManager& caches,
                               Monitoring& monitoring);

    void GetRecordedRanges(const long& trackId, const Protocol::TimePoint& from,
                           const Protocol::TimePoint& to, const Protocol::TimePoint& maxGap,
                           Protocol::TimeRanges& ranges) override;
    void ListChunks(const long& trackId, const Protocol::TimePoint& from,
                    const Protocol::TimePoint& to, const long& limit,
                    Protocol::ChunkSpans& chunks) override;
    void GetTrackStatistics(const Protocol::Ids& trackIds,
                            Protocol::TrackStatisticsList& statistics) override;

  private:
    using TimePoint = Moreld::Time::TimePoint;

    // Runs `read` on the track's index with the track's mutex held; throws
    // std::runtime_error, naming `what`, for an unknown track.
    void ReadTrack(long trackId, const char* what,
                   const std::function<void(const LoopRecordingFileManager&)>& read);
    // Fills `out` when the track exists; false otherwise.
    bool ReadStatistics(long trackId, Protocol::TrackStatistics& out);
    void CheckWindow(long trackId, const TimePoint& from, const TimePoint& to) const;
    [[noreturn]] void Fail(const std::string& message) const;

    LoopRecordingFileManagers& managers_;
    ChunkCacheManager& caches_;
    Monitoring& monitoring_;
    tav::mr::logging::Logger logger_;
};
