#include "Storage/Indexes/Ram/Block.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace FileSystem {

namespace {

// Per-item costs of the RAM estimate: a block's fixed part, one chunk with its
// map node, one protection id.
constexpr unsigned long kBlockRamSize = 48;
constexpr unsigned long kChunkRamSize = 112;
constexpr unsigned long kProtectionRamSize = 8;
// At most this many chunks are reserved ahead (a bit under 0.5 MB); a block
// that takes more grows as a vector does.
constexpr unsigned long kMaxReservedChunks = 4096;

}  // namespace

Block::Block() : Block(BlockConfiguration(0, 1)) {}

Block::Block(const BlockConfiguration& configuration) : configuration_(configuration) {
    Reset(configuration);
}

Block& Block::operator=(const Block& other) {
    startTime_ = other.startTime_;
    endTime_ = other.endTime_;
    configuration_ = other.configuration_;
    currentSize_ = other.currentSize_;
    chunks_ = other.chunks_;
    gaps_ = other.gaps_;
    return *this;
}

Block& Block::operator=(Block&& other) {
    if (this == &other) {
        return *this;
    }
    startTime_ = other.startTime_;
    endTime_ = other.endTime_;
    configuration_ = other.configuration_;
    currentSize_ = other.currentSize_;
    chunks_ = std::move(other.chunks_);
    gaps_ = std::move(other.gaps_);
    return *this;
}

void Block::Reset(const BlockConfiguration& configuration) {
    configuration_ = configuration;
    startTime_ = TimePoint();
    endTime_ = TimePoint();
    currentSize_ = Moreld::File::ChunkFileHeader::kSize;
    chunks_.clear();
    gaps_.Clear();
    protections_.clear();
}

bool Block::Append(const Chunk& chunk) {
    if (StartsTooEarly(chunk) || !IsSpaceForNewChunk(chunk.location.size)) {
        return false;
    }
    if (!chunks_.empty()) {
        CheckSameFile(chunk);
        if (chunk.timepoint > endTime_)
            gaps_.Add(chunks_.size());
    } else {
        startTime_ = chunk.timepoint;
        chunks_.reserve(ExpectedChunks(chunk.location.size));
    }
    auto placed = chunks_.emplace_hint(chunks_.end(), chunk.timepoint, chunk);
    placed->second.location.chunkIndex = chunks_.size() - 1;
    currentSize_ += chunk.location.size;
    endTime_ = chunk.timepoint + chunk.duration;
    return true;
}

// The subtractions are unsigned on purpose: with currentSize starting at 16, a
// chunk larger than maxSize - 16 never fits, not even in an empty block.
bool Block::IsSpaceForNewChunk(unsigned long size) const {
    const unsigned long maxSize = configuration_.GetMaxSize();
    const unsigned long maxChunk = configuration_.GetMaxChunk();
    if (configuration_.IsUnlimited()) {
        return true;
    }
    if (maxChunk != 0 && maxSize == 0) {
        return maxChunk > chunks_.size();
    }
    if (maxChunk != 0 && maxChunk <= chunks_.size()) {
        return false;
    }
    return size <= maxSize - currentSize_;
}

ChunkFile Block::GetChunkFile() const {
    return chunks_.empty() ? ChunkFile() : chunks_.rbegin()->second.location.file;
}

Block::TimePoint Block::GetTcIn() const {
    return chunks_.empty() ? TimePoint() : chunks_.begin()->second.timepoint;
}

Block::TimePoint Block::GetTcOut() const {
    if (chunks_.empty()) {
        return TimePoint();
    }
    const Chunk& last = chunks_.rbegin()->second;
    return last.timepoint + last.duration;
}

Chunk Block::GetFirstChunk() const {
    if (chunks_.empty()) {
        throw std::runtime_error("Cannot get first chunk : block is empty");
    }
    return chunks_.begin()->second;
}

Chunk Block::GetLastChunk() const {
    if (chunks_.empty()) {
        throw std::runtime_error("Cannot get last chunk : block is empty");
    }
    return chunks_.rbegin()->second;
}

// A chunk holds its start and not its end.
bool Block::Lookup(const TimePoint& tp, Chunk& out) const {
    auto it = LastStartingAtOrBefore(tp);
    if (it == chunks_.end() || tp >= it->second.timepoint + it->second.duration) {
        return false;
    }
    out = it->second;
    return true;
}

bool Block::Next(const TimePoint& tp, Chunk& out) const {
    auto it = chunks_.upper_bound(tp);
    if (it == chunks_.end()) {
        return false;
    }
    out = it->second;
    return true;
}

// The chunks of a block are contiguous in time, so the chunk before one that
// holds `tp` ends at or before `tp` without checking.
bool Block::Previous(const TimePoint& tp, Chunk& out) const {
    auto it = LastStartingAtOrBefore(tp);
    if (it == chunks_.end()) {
        return false;
    }
    if (it->second.timepoint + it->second.duration <= tp) {
        out = it->second;
        return true;
    }
    if (it == chunks_.begin()) {
        return false;
    }
    out = std::prev(it)->second;
    return true;
}

bool Block::IsBetween(TimePoint a, TimePoint b) const {
    if (chunks_.empty()) {
        return false;
    }
    const TimePoint tcIn = GetTcIn();
    if (tcIn == a) {
        return true;
    }
    if (a < tcIn) {
        return b > tcIn;
    }
    return a < GetTcOut();
}

void Block::Restamp(TimePoint& accumulated, unsigned long& sequence) {
    for (auto& [tp, chunk] : chunks_) {
        chunk.accumulatedDuration = accumulated;
        chunk.sequenceNumber = sequence++;
        accumulated += chunk.duration;
    }
}

unsigned long Block::GetSizeOnRam() const {
    return kBlockRamSize + kChunkRamSize * chunks_.size() +
           kProtectionRamSize * protections_.size();
}

bool Block::operator==(const Block& other) const {
    if (startTime_ != other.startTime_ || endTime_ != other.endTime_ ||
        !configuration_.IsEqual(other.configuration_) || currentSize_ != other.currentSize_ ||
        protections_.size() != other.protections_.size() ||
        chunks_.size() != other.chunks_.size()) {
        return false;
    }
    for (const auto& [key, chunk] : chunks_) {
        auto found = other.chunks_.find(key);
        if (found == other.chunks_.end() || found->second != chunk) {
            return false;
        }
    }
    for (unsigned long id : protections_) {
        if (other.protections_.count(id) == 0) {
            return false;
        }
    }
    return true;
}

std::string Block::ToString() const {
    std::string text = configuration_.ToString() + ";" + std::to_string(protections_.size()) + ";";
    for (unsigned long id : protections_) {
        text += std::to_string(id) + ",";
    }
    text += std::to_string(chunks_.size()) + ";";
    for (const auto& entry : chunks_) {
        text += entry.second.ToString();
    }
    return text;
}

Block::ChunkMap::const_iterator Block::LastStartingAtOrBefore(const TimePoint& tp) const {
    auto it = chunks_.upper_bound(tp);
    if (it == chunks_.begin()) {
        return chunks_.end();
    }
    return std::prev(it);
}

// Besides the block's end, a chunk must start after the last one: a chunk of
// zero or negative duration would otherwise collide with, or sort before, a
// chunk already in the map.
bool Block::StartsTooEarly(const Chunk& chunk) const {
    if (chunk.timepoint < endTime_) {
        return true;
    }
    return !chunks_.empty() && chunk.timepoint <= chunks_.rbegin()->first;
}

unsigned long Block::ExpectedChunks(unsigned long size) const {
    const unsigned long maxSize = configuration_.GetMaxSize();
    const unsigned long maxChunk = configuration_.GetMaxChunk();
    unsigned long expected = kMaxReservedChunks;
    if (maxChunk != 0) {
        expected = std::min(expected, maxChunk);
    }
    constexpr unsigned long kHeader = Moreld::File::ChunkFileHeader::kSize;
    if (maxSize > kHeader && size != 0) {
        expected = std::min(expected, (maxSize - kHeader) / size);
    }
    return std::max(expected, 1UL);
}

void Block::CheckSameFile(const Chunk& chunk) const {
    const ChunkFile blockFile = GetChunkFile();
    if (blockFile != chunk.location.file) {
        std::ostringstream text;
        text << "Chunk file for chunk " << chunk
             << " must be equal to the one of the block: " << blockFile;
        throw std::runtime_error(text.str());
    }
}

}  // namespace FileSystem
