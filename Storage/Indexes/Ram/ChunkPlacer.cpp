#include "Storage/Indexes/Ram/ChunkPlacer.h"

#include <stdexcept>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/StrCat.h"

using Moreld::File::ChunkFileHeader;
using Moreld::Tools::StrCat;

void ChunkPlacer::CheckAfterEndOfTrack(const TimePoint& tp) const {
    const TimePoint end = counters_.endOfTrack.load();
    if (end > tp) {
        std::string msg =
            StrCat("T", trackId_, ": Chunk's timepoint ", tp, " (", tp.ToNanoseconds(),
                   "ns) < end of track ", end, " (", end.ToNanoseconds(), "ns)");
        MR_LOG(logger_, 50, msg);
        throw MoreldStorageApi::InvalidArgumentError(msg);
    }
}

FileSystem::Block* ChunkPlacer::NewestWithRoom(unsigned long size) const {
    if (blocks_.empty())
        return nullptr;
    FileSystem::Block& last = blocks_.rbegin()->second;
    if (counters_.chunkCounter % 750 == 0) {
        MR_LOG(logger_, 20,
               "T" << trackId_ << ": " << counters_.trackSize.load() / 1000000 << "MB, chunk "
                   << counters_.chunkCounter
                   << ", last written file: " << last.GetChunkFile().GetFileName());
    }
    return last.IsSpaceForNewChunk(size) ? &last : nullptr;
}

FileSystem::Chunk ChunkPlacer::AppendInBlock(FileSystem::Block& block, const TimePoint& tp,
                                             const TimePoint& duration, unsigned long size) {
    ChunkLocation location(block.GetChunkFile(), block.GetCurrentSize(), size,
                           block.GetIndexOfNewChunk());
    FileSystem::Chunk chunk(
        tp, duration, counters_.accumulatedDuration.load(std::memory_order_relaxed), location);
    chunk.sequenceNumber = static_cast<unsigned long>(counters_.chunkCounter);
    if (!block.Append(chunk)) {
        MR_LOG(logger_, 50,
               "Could not append chunk at " << tp << " in last block at " << block.GetTcIn()
                                            << ".  Chunk is " << chunk.ToString());
        throw std::runtime_error(StrCat("Could not append chunk at ", tp));
    }
    MR_LOG(logger_, 10, "T" << trackId_ << ": Inserted chunk in same block at " << tp);
    Count(chunk);
    return chunk;
}

FileSystem::Chunk ChunkPlacer::AppendFirstInBlock(FileSystem::Block& block, const ChunkFile& file,
                                                  const TimePoint& tp, const TimePoint& duration,
                                                  unsigned long size, bool trackStarts) {
    const TimePoint accumulated =
        trackStarts ? TimePoint::FromNanoseconds(0) : counters_.accumulatedDuration.load();
    FileSystem::Chunk chunk(tp, duration, accumulated,
                            ChunkLocation(file, ChunkFileHeader::kFirstRecordOffset, size, 0));
    chunk.sequenceNumber = trackStarts ? 0 : static_cast<unsigned long>(counters_.chunkCounter);
    if (!block.Append(chunk)) {
        // The empty block stays: the next chunk will find it and fill it.
        MR_LOG(logger_, 50,
               "Could not append chunk at " << tp << " in " << (trackStarts ? "first" : "new")
                                            << " block. Chunk is " << chunk.ToString());
        throw std::runtime_error(StrCat("Could not append chunk at ", tp));
    }
    if (trackStarts) {
        Restart(chunk);
    } else {
        Count(chunk);
        MR_LOG(
            logger_, 10,
            "T" << trackId_ << ": Inserted first chunk in block at " << tp << " on file " << file);
    }
    return block.GetLastChunk();
}

// The stores only need to be atomic for lock-free readers: every writer of
// these counters holds the index lock exclusively.
void ChunkPlacer::Count(const FileSystem::Chunk& chunk) {
    constexpr auto relaxed = std::memory_order_relaxed;
    counters_.accumulatedDuration.store(
        counters_.accumulatedDuration.load(relaxed) + chunk.duration, relaxed);
    ++counters_.chunkCounter;
    counters_.endOfTrack.store(chunk.timepoint + chunk.duration, relaxed);
    counters_.trackSize.store(counters_.trackSize.load(relaxed) + chunk.location.size, relaxed);
}

// A new track starts its counters again, except the chunk counter, which
// goes on after a Clear.
void ChunkPlacer::Restart(const FileSystem::Chunk& chunk) {
    counters_.accumulatedDuration = chunk.duration;
    ++counters_.chunkCounter;
    counters_.endOfTrack = chunk.timepoint + chunk.duration;
    counters_.trackSize = chunk.location.size;
}
