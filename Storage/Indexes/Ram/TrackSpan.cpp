#include "Storage/Indexes/Ram/TrackSpan.h"

std::optional<TrackSpan::Ends> TrackSpan::Find(const TimePoint& from, const TimePoint& to) {
    if (from >= to)
        return std::nullopt;
    TimePoint ignored;
    IFileSystemManager::ChunkHandle first = index_.Lookup(from);
    if (!first)
        first = index_.Next(from, ignored);
    if (!first)
        return std::nullopt;
    Ends ends;
    ends.first = first->GetChunk();
    if (IFileSystemManager::ChunkHandle last = index_.Lookup(to)) {
        ends.last = last->GetChunk();
        ends.lastIncluded = ends.last.timepoint < to;
        return ends;
    }
    if (IFileSystemManager::ChunkHandle last = index_.Previous(to, ignored)) {
        ends.last = last->GetChunk();
        ends.lastIncluded = true;
        return ends;
    }
    return std::nullopt;
}

unsigned long TrackSpan::CountChunks(const TimePoint& from, const TimePoint& to) {
    const std::optional<Ends> ends = Find(from, to);
    if (!ends)
        return 0;
    return ends->last.sequenceNumber + (ends->lastIncluded ? 1 : 0) - ends->first.sequenceNumber;
}

TrackSpan::TimePoint TrackSpan::Duration(const TimePoint& from, const TimePoint& to) {
    const std::optional<Ends> ends = Find(from, to);
    if (!ends)
        return TimePoint();
    return ends->last.accumulatedDuration +
           (ends->lastIncluded ? ends->last.duration : TimePoint()) -
           ends->first.accumulatedDuration;
}
