#include "Storage/Indexes/Ram/BlockNavigation.h"

#include <iterator>

BlockNavigation::Blocks::const_iterator BlockNavigation::AtOrBefore(const TimePoint& tp) const {
    auto it = blocks_.upper_bound(tp);
    if (it == blocks_.begin())
        return blocks_.end();
    return std::prev(it);
}

BlockNavigation::Found BlockNavigation::Lookup(const TimePoint& tp) const {
    auto it = AtOrBefore(tp);
    FileSystem::Chunk chunk;
    if (it == blocks_.end() || !it->second.Lookup(tp, chunk))
        return std::nullopt;
    return chunk;
}

BlockNavigation::Found BlockNavigation::Next(const TimePoint& tp) const {
    if (blocks_.empty())
        return std::nullopt;
    auto it = blocks_.cbegin();
    if (tp >= it->first) {
        it = AtOrBefore(tp);
        FileSystem::Chunk chunk;
        if (it->second.Next(tp, chunk))
            return chunk;
        ++it;
    }
    return FirstFrom(it);
}

BlockNavigation::Found BlockNavigation::Previous(const TimePoint& tp) const {
    if (blocks_.empty())
        return std::nullopt;
    const FileSystem::Block& last = blocks_.rbegin()->second;
    if (!last.Empty() && tp >= last.GetTcOut())
        return last.GetLastChunk();
    auto it = AtOrBefore(tp);
    if (it == blocks_.end())
        return std::nullopt;
    FileSystem::Chunk chunk;
    if (it->second.Previous(tp, chunk))
        return chunk;
    return LastBefore(it);
}

BlockNavigation::Found BlockNavigation::FirstFrom(Blocks::const_iterator it) const {
    while (it != blocks_.end() && it->second.Empty())
        ++it;
    if (it == blocks_.end())
        return std::nullopt;
    return it->second.GetFirstChunk();
}

BlockNavigation::Found BlockNavigation::LastBefore(Blocks::const_iterator it) const {
    do {
        if (it == blocks_.begin())
            return std::nullopt;
        --it;
    } while (it->second.Empty());
    return it->second.GetLastChunk();
}

BlockNavigation::Found BlockNavigation::First() const {
    if (blocks_.empty() || blocks_.begin()->second.Empty())
        return std::nullopt;
    return blocks_.begin()->second.GetFirstChunk();
}

BlockNavigation::Found BlockNavigation::Last() const {
    if (blocks_.empty() || blocks_.rbegin()->second.Empty())
        return std::nullopt;
    return blocks_.rbegin()->second.GetLastChunk();
}

bool BlockNavigation::Holds(const FileSystem::Chunk& chunk) const {
    auto block = AtOrBefore(chunk.timepoint);
    FileSystem::Chunk found;
    return block != blocks_.end() && block->second.Lookup(chunk.timepoint, found) &&
           found.location == chunk.location;
}

std::optional<std::pair<BlockNavigation::TimePoint, BlockNavigation::TimePoint>>
BlockNavigation::FirstOverlap() const {
    bool first = true;
    TimePoint previousOut;
    for (const auto& [key, block] : blocks_) {
        if (!first && block.GetTcIn() < previousOut)
            return std::make_pair(block.GetTcIn(), previousOut);
        first = false;
        previousOut = block.GetTcOut();
    }
    return std::nullopt;
}

unsigned long BlockNavigation::SizeOnRam() const {
    unsigned long size = 8 * blocks_.size();
    for (const auto& [key, block] : blocks_)
        size += block.GetSizeOnRam();
    return size;
}

bool BlockNavigation::HoldsFile(const ChunkFile& file) const {
    for (const auto& [key, block] : blocks_) {
        if (!block.Empty() && block.GetChunkFile() == file)
            return true;
    }
    return false;
}
