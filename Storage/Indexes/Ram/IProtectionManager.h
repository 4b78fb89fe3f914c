#pragma once

#include <vector>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"

// The file-keeping side of a track's index: the files a track owns and the
// protections that keep blocks from being recycled.
class IProtectionManager {
  public:
    // Told of every protection that succeeds.
    class IProtectionObserver {
      public:
        virtual ~IProtectionObserver() = default;
        // `files` are the files of the blocks the protection now covers.
        virtual void OnProtected(long protectionId, const Moreld::Time::TimePoint& in,
                                 const Moreld::Time::TimePoint& out,
                                 const std::vector<ChunkFile>& files) = 0;
    };

    virtual ~IProtectionManager() = default;

    // Gives empty files to the track.
    virtual void InsertFiles(const std::vector<ChunkFile>& files) = 0;
    // Takes whole unprotected files back, at least `size` bytes when the track
    // has them; the caller returns them to the pool.
    virtual std::vector<ChunkFile> RemoveFiles(unsigned long size) = 0;
    // Keeps the blocks between `in` and `out` from being recycled.
    virtual void Protect(long id, const Moreld::Time::TimePoint& in,
                         const Moreld::Time::TimePoint& out) = 0;
    // Removes protection `id`; returns the number of files that became recyclable.
    virtual unsigned long Unprotect(long id) = 0;
    virtual void RegisterProtectionObserver(IProtectionObserver* observer) = 0;
    virtual void UnregisterProtectionObserver(IProtectionObserver* observer) = 0;
};
