#pragma once

#include <vector>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

// Retention by age of one track: records the track's maximum age in its
// database, and gives back the files of the blocks whose whole content is
// older than a cutoff. Files go back as Clear gives them: they become empty
// files of the track, at the back of the queue, and the database lists them
// as empty in one transaction, committed before any writer can pick them.
// A crash before that commit leaves the database as it was: the blocks come
// back at the next start and are purged again.
//
// A short-lived helper of LoopRecordingFileManager, which it befriends: it
// works on the manager's state under the manager's own locks (files, then
// index, then database), so it may run while the track is written and read.
class TrackAgePurge {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    explicit TrackAgePurge(LoopRecordingFileManager& manager) : m_(manager) {}

    // Throws std::runtime_error for a negative age; nothing changes then.
    void SetMaxAge(const TimePoint& maxAge);
    // Purges, oldest first, the unprotected blocks ending at or before
    // `cutoff`; stops at the file being written. Returns the files given back.
    size_t Run(const TimePoint& cutoff);

  private:
    // With both of the manager's locks held: takes the expired blocks out of
    // the index and queues their files as empty.
    std::vector<ChunkFile> TakeExpiredBlocks(const TimePoint& cutoff)
        REQUIRES(m_.filesMutex_, m_.indexMutex_);
    void LogPurge(size_t files, const TimePoint& cutoff) const REQUIRES_SHARED(m_.filesMutex_);

    LoopRecordingFileManager& m_;
};
