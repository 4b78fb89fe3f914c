#pragma once

#include <memory>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/Chunk.h"

// The reading and appending side of a track's index: where a chunk goes, and
// which chunk lies at, after or before an instant.
class IFileSystemManager {
  public:
    // What a search hands out: the chunk found, held by a handle so that a
    // protection scheme may pin the chunk's file while a reader uses it.
    class IChunkProtection {
      public:
        virtual ~IChunkProtection() = default;
        virtual FileSystem::Chunk GetChunk() const = 0;
    };
    using ChunkHandle = std::unique_ptr<IChunkProtection>;

    virtual ~IFileSystemManager() = default;

    // The chunk whose [timepoint, timepoint + duration) holds `tp`; empty when none.
    virtual ChunkHandle Lookup(Moreld::Time::TimePoint tp) = 0;
    // The first chunk starting after `tp`; `found` receives its time point.
    virtual ChunkHandle Next(Moreld::Time::TimePoint tp, Moreld::Time::TimePoint& found) = 0;
    // The last chunk ending at or before `tp`; `found` receives its time point.
    virtual ChunkHandle Previous(Moreld::Time::TimePoint tp, Moreld::Time::TimePoint& found) = 0;
    // Places one chunk and returns it with its location.
    virtual FileSystem::Chunk Append(const Moreld::Time::TimePoint& tp,
                                     const Moreld::Time::TimePoint& duration,
                                     unsigned long size) = 0;
    // Empties the track except its protected blocks.
    virtual void Clear() = 0;
    virtual ChunkHandle GetFirstChunkLocation(Moreld::Time::TimePoint& found) const = 0;
    virtual ChunkHandle GetLastChunkLocation(Moreld::Time::TimePoint& found) const = 0;
};
