#pragma once

#include <boost/container/flat_map.hpp>

#include <set>
#include <string>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/BlockConfiguration.h"
#include "Storage/Indexes/Ram/BlockGaps.h"
#include "Storage/Indexes/Ram/Chunk.h"

namespace FileSystem {

// The chunks stored in one chunk file, in ascending time, with the ids of the
// protections that cover the block (a block with any protection must not be
// recycled). Chunks are appended in time order, packed one after the other
// from offset 16 (the file header), within the limits of its
// BlockConfiguration.
//
// A value owned by the track index, which fills it and guards it with its own
// locks; no thread-safety of its own.
class Block {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    // Chunks arrive in time order and are never removed one by one, so a
    // sorted vector keeps them: no node per chunk, a binary search per
    // lookup. The first chunk reserves room for as many chunks of its size
    // as the file takes, so that a block of steady chunks is allocated once.
    using ChunkMap = boost::container::flat_map<TimePoint, Chunk>;

    // One chunk per file, any size (0_1).
    Block();
    explicit Block(const BlockConfiguration& configuration);
    // Copies everything, protections included.
    Block(const Block& other) = default;
    Block(Block&& other) = default;
    // Copies everything except the protections, which stay as they were in
    // this block: the index replaces a block's content without touching what
    // protects its file.
    Block& operator=(const Block& other);
    Block& operator=(Block&& other);
    ~Block() = default;

    // Empties the block (chunks and protections) and takes `configuration`.
    void Reset(const BlockConfiguration& configuration);

    // Adds `chunk` after the last one, its chunkIndex rewritten to its position
    // in the file. Returns false, changing nothing, when the chunk starts
    // before the block's end (or not after the last chunk's start) or does not
    // fit. Throws std::runtime_error, changing nothing, when the block has
    // chunks of another file than chunk.location.file.
    bool Append(const Chunk& chunk);
    // Room for `count` chunks in all, so that appending that many allocates
    // nothing more (an index rebuilt from its database knows each block's
    // count).
    void Reserve(size_t count) { chunks_.reserve(count); }
    // Gives back the room reserved beyond the chunks held: for a block that
    // takes no more chunks.
    void ShrinkToFit() {
        chunks_.shrink_to_fit();
        gaps_.ShrinkToFit();
    }
    // Whether a chunk of `size` bytes fits after the current ones.
    bool IsSpaceForNewChunk(unsigned long size) const;

    unsigned long GetIndexOfNewChunk() const { return chunks_.size(); }
    unsigned long GetChunkNumber() const { return chunks_.size(); }
    // Offset at which the next chunk goes: 16 plus the sizes of the chunks.
    unsigned long GetCurrentSize() const { return currentSize_; }
    bool Empty() const { return chunks_.empty(); }

    // The last chunk's file; a default ChunkFile when empty.
    ChunkFile GetChunkFile() const;
    // First chunk's start and last chunk's end; TimePoint() when empty.
    TimePoint GetTcIn() const;
    TimePoint GetTcOut() const;
    // Throw std::runtime_error when empty.
    Chunk GetFirstChunk() const;
    Chunk GetLastChunk() const;

    // The chunk whose [timepoint, timepoint + duration) holds `tp`.
    bool Lookup(const TimePoint& tp, Chunk& out) const;
    // The first chunk that starts strictly after `tp`.
    bool Next(const TimePoint& tp, Chunk& out) const;
    // The last chunk that ends at or before `tp`.
    bool Previous(const TimePoint& tp, Chunk& out) const;
    // Whether the block overlaps a range that starts at `a` and ends at `b`.
    bool IsBetween(TimePoint a, TimePoint b) const;

    // Estimated RAM footprint in bytes, by formula rather than a walk.
    unsigned long GetSizeOnRam() const;

    // Gives the chunks, in order, the running counters that appending them
    // one after the other would have given them: `accumulated` and
    // `sequence` are the values for the first chunk and are advanced past the
    // last. Used when an index is rebuilt from rows that do not store them.
    void Restamp(TimePoint& accumulated, unsigned long& sequence);

    bool operator==(const Block& other) const;
    bool operator!=(const Block& other) const { return !(*this == other); }

    // "<configuration>;<protection count>;<id>,...<chunk count>;<chunks...>",
    // for logs.
    std::string ToString() const;

    const TimePoint& GetStartTime() const { return startTime_; }
    const TimePoint& GetEndTime() const { return endTime_; }
    const BlockConfiguration& GetConfiguration() const { return configuration_; }
    const ChunkMap& GetChunks() const { return chunks_; }
    // Where a chunk starts later than the one before it ended.
    const BlockGaps& GetGaps() const { return gaps_; }
    // The ids of the protections covering this block; the track index edits
    // the set directly.
    const std::set<unsigned long>& GetProtections() const { return protections_; }
    std::set<unsigned long>& GetProtections() { return protections_; }

  private:
    // The last chunk starting at or before `tp`, or chunks_.end().
    ChunkMap::const_iterator LastStartingAtOrBefore(const TimePoint& tp) const;
    bool StartsTooEarly(const Chunk& chunk) const;
    // The number of chunks of `size` bytes the block's configuration lets it
    // take, bounded so that a huge file does not reserve a huge vector.
    unsigned long ExpectedChunks(unsigned long size) const;
    void CheckSameFile(const Chunk& chunk) const;

    TimePoint startTime_;
    TimePoint endTime_;
    BlockConfiguration configuration_;
    unsigned long currentSize_ = Moreld::File::ChunkFileHeader::kSize;
    ChunkMap chunks_;
    BlockGaps gaps_;
    std::set<unsigned long> protections_;
};

}  // namespace FileSystem
