#pragma once

#include <map>

#include "Platform/Logging/Logger.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Block.h"
#include "Storage/Indexes/Ram/TrackCounters.h"

// Places one chunk in a track's blocks: after the last chunk of the newest
// block, or as the first chunk of a block just opened; stamps it with the
// track's running counters and advances them.
//
// A view over the blocks and counters the track index owns: references and
// no state, valid while they are. No thread-safety of its own: the caller
// holds the index lock exclusively while it places a chunk.
class ChunkPlacer {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using Blocks = std::map<TimePoint, FileSystem::Block>;

    ChunkPlacer(Blocks& blocks, TrackCounters& counters, long trackId,
                const tav::mr::logging::Logger& logger)
        : blocks_(blocks), counters_(counters), trackId_(trackId), logger_(logger) {}

    // Throws std::runtime_error when `tp` is before the end of the track.
    void CheckAfterEndOfTrack(const TimePoint& tp) const;
    // The newest block when a chunk of `size` bytes fits in it, else null.
    // Logs the track's progress every 750 chunks.
    FileSystem::Block* NewestWithRoom(unsigned long size) const;
    // Appends after the block's last chunk. Throws std::runtime_error, the
    // counters unchanged, when the block refuses the chunk.
    FileSystem::Chunk AppendInBlock(FileSystem::Block& block, const TimePoint& tp,
                                    const TimePoint& duration, unsigned long size);
    // The first chunk of `block`, just opened on `file`, at the file's first
    // record. `trackStarts`: the track had no block, so its duration and
    // size start again from this chunk. Throws std::runtime_error, the
    // counters unchanged and the block left empty, when the chunk does not fit.
    FileSystem::Chunk AppendFirstInBlock(FileSystem::Block& block, const ChunkFile& file,
                                         const TimePoint& tp, const TimePoint& duration,
                                         unsigned long size, bool trackStarts);

  private:
    void Count(const FileSystem::Chunk& chunk);
    void Restart(const FileSystem::Chunk& chunk);

    Blocks& blocks_;
    TrackCounters& counters_;
    const long trackId_;
    const tav::mr::logging::Logger& logger_;
};
