#include "Storage/Indexes/Ram/TrackAgePurge.h"

#include <sstream>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/SyncPoint.h"
#include "Platform/Tools/WriterLock.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

namespace {

using UniqueLock = Moreld::Tools::WriterLock<>;

// Every chunk file starts with a header of this size.
constexpr unsigned long kFileHeaderSize = 16;

}  // namespace

void TrackAgePurge::SetMaxAge(const TimePoint& maxAge) {
    if (maxAge.ToNanoseconds() < 0) {
        std::ostringstream msg;
        msg << "T" << m_.trackId_ << ": max age must not be negative, got "
            << maxAge.ToDurationString();
        MR_LOG(m_.logger_, 40, msg.str());
        throw std::runtime_error(msg.str());
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
    std::vector<ChunkFile> purged;
    // Recyclable keys are the unprotected blocks, oldest first; blocks do
    // not overlap, so the first one ending after the cutoff ends the walk.
    for (auto key = m_.recyclableKeys_.begin(); key != m_.recyclableKeys_.end();) {
        auto block = m_.blocks_.find(*key);
        if (block == m_.blocks_.end()) {
            MR_LOG(m_.logger_, 40,
                   "Could not find block to purge at recyclable timepoint "
                       << *key << " --> we remove this timepoint from the recyclable ones");
            key = m_.recyclableKeys_.erase(key);
            continue;
        }
        if (block->second.Empty()) {  // a block whose first chunk failed: it holds nothing
            ++key;
            continue;
        }
        if (block->second.GetTcOut() > cutoff || m_.IsBeingWritten(block->second.GetChunkFile()))
            break;
        ChunkFile file = block->second.GetChunkFile();
        file.SetFromEmptyFile(true);
        m_.trackSize_ = m_.trackSize_.load() + kFileHeaderSize - block->second.GetCurrentSize();
        purged.push_back(file);
        m_.emptyFiles_.push_back(file);
        m_.blocks_.erase(block);
        key = m_.recyclableKeys_.erase(key);
    }
    return purged;
}

void TrackAgePurge::LogPurge(size_t files, const TimePoint& cutoff) const {
    MR_LOG(m_.logger_, 30,
           "T" << m_.trackId_ << ": " << files << " blocks ending before " << cutoff
               << " given back as empty files (max age " << m_.maxAge_.load().ToDurationString()
               << "). Beginning of track is now " << m_.beginningOfTrack_.load()
               << ". There are now " << m_.emptyFiles_.size() << " empty files available.");
}
