#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Block.h"
#include "Storage/Indexes/Ram/ProtectionRanges.h"

// The protections of one track: for each protection id, the keys of the
// blocks it holds and the time range it keeps holding as blocks are
// recorded. A block is held while its own set of ids (Block::GetProtections)
// is not empty, and is recyclable exactly when that set is empty: the table
// keeps the blocks' sets, its own map and the recyclable keys in step.
//
// A value owned by the track index. No thread-safety of its own: the index
// calls it under its files lock, and under its index lock exclusively for
// any operation given the blocks.
class ProtectionTable {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using Blocks = std::map<TimePoint, FileSystem::Block>;
    using Ids = std::map<unsigned long, std::set<TimePoint>>;

    // `logger` is a copy of the index's logger; lines carry `trackId`.
    ProtectionTable(long trackId, tav::mr::logging::Logger logger)
        : trackId_(trackId), logger_(std::move(logger)) {}

    bool Has(unsigned long id) const { return ids_.count(id) != 0; }
    bool HasRanges() const { return !ranges_.Empty(); }
    const Ids& GetIds() const { return ids_; }

    // Throws std::runtime_error for id 0 or an empty range.
    void CheckRequest(unsigned long id, const TimePoint& in, const TimePoint& out) const;
    // A new protection `id` of [in, out]: holds its blocks (HoldBlocks) and
    // keeps its range (KeepRange); returns the files held. Throws
    // std::runtime_error, changing nothing, when the id is in use or nothing
    // is held, unless `mayHoldNothing`.
    std::vector<ChunkFile> Protect(unsigned long id, const TimePoint& in, const TimePoint& out,
                                   bool mayHoldNothing, Blocks& blocks,
                                   std::set<TimePoint>& recyclableKeys);
    // Holds, under `id`, the blocks from the one at or before `in` on while
    // they lie between `in` and `out`; returns their files, in key order.
    std::vector<ChunkFile> HoldBlocks(unsigned long id, const TimePoint& in, const TimePoint& out,
                                      Blocks& blocks, std::set<TimePoint>& recyclableKeys);
    // Keeps holding, under `id`, the blocks recorded later in [in, out]. The
    // id is known from now on, even while it holds no block.
    void KeepRange(unsigned long id, const TimePoint& in, const TimePoint& out);
    // Has the ranges the newest block lies in hold it; true when one did.
    bool HoldNewest(Blocks& blocks, std::set<TimePoint>& recyclableKeys);
    // Forgets `id` (precondition: Has(id)); the blocks no other protection
    // holds become recyclable. Returns their number.
    unsigned long Release(unsigned long id, Blocks& blocks, std::set<TimePoint>& recyclableKeys);

  private:
    // Logs `msg` at `level` and throws it as an `Error`.
    template <typename Error>
    [[noreturn]] void Refuse(int level, const std::string& msg) const;
    void Hold(unsigned long id, const TimePoint& key, FileSystem::Block& block,
              std::set<TimePoint>& recyclableKeys);

    const long trackId_;
    const tav::mr::logging::Logger logger_;
    Ids ids_;
    ProtectionRanges ranges_;
};
