#include "Storage/Indexes/Ram/TrackAgePurge.h"

#include <sstream>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/SyncPoint.h"
#include "Platform/Tools/WriterLock.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

namespace {

using UniqueLock = Moreld::Tools::WriterLock<>;

}  // namespace

void TrackAgePurge::SetMaxAge(const TimePoint& maxAge) {
    if (maxAge.ToNanoseconds() < 0) {
        std::ostringstream msg;
        msg << "T" << m_.trackId_ << ": max age must not be negative, got "
            << maxAge.ToDurationString();
        MR_LOG(m_.logger_, 40, msg.str());
        throw MoreldStorageApi::InvalidArgumentError(msg.str());
    }
    Moreld::Tools::MutexLock db(m_.dbMutex_);
    m_.trackDb_.SetMaxAge(maxAge);
    m_.maxAge_ = maxAge;
    if (maxAge.ToNanoseconds() == 0) {
        MR_LOG(m_.logger_, 30, "T" << m_.trackId_ << ": keeps content of any age");
    } else {
        MR_LOG(m_.logger_, 30,
               "T" << m_.trackId_ << ": keeps content for at most " << maxAge.ToDurationString());
    }
}

size_t TrackAgePurge::Run(const TimePoint& cutoff) {
    UniqueLock files(m_.filesMutex_);
    std::vector<ChunkFile> purged;
    {
        UniqueLock index(m_.indexMutex_);
        purged = TakeExpiredBlocks(cutoff);
        if (purged.empty())
            return 0;
        m_.AdaptBeginningOfTrack();
    }
    LOOPSTORE_SYNC_POINT("TrackAgePurge::Run:IndexUpdated");
    // Still under the files lock: no new block can take a purged file before
    // the database lists it as empty.
    {
        Moreld::Tools::MutexLock db(m_.dbMutex_);
        m_.trackDb_.Clear(purged);
    }
    LogPurge(purged.size(), cutoff);
    return purged.size();
}

std::vector<ChunkFile> TrackAgePurge::TakeExpiredBlocks(const TimePoint& cutoff) {
    TrackFileBook::Freed freed;
    std::vector<ChunkFile> purged =
        m_.Book().EmptyBlocksEndingBy(cutoff, freed, m_.KeepFileBeingWritten());
    m_.CountFreed(freed);
    return purged;
}

void TrackAgePurge::LogPurge(size_t files, const TimePoint& cutoff) const {
    MR_LOG(m_.logger_, 30,
           "T" << m_.trackId_ << ": " << files << " blocks ending before " << cutoff
               << " given back as empty files (max age " << m_.maxAge_.load().ToDurationString()
               << "). Beginning of track is now " << m_.counters_.beginningOfTrack.load()
               << ". There are now " << m_.emptyFiles_.size() << " empty files available.");
}
