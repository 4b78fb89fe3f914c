#include "Storage/Indexes/Ram/ChunkCache.h"

#include <malloc.h>

#include <atomic>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"

namespace {

std::atomic<uint64_t> heapTrims{0};

}  // namespace

// Invariants: chunks_ and sizes_ hold the same keys; keys only grow with each
// insertion; currentSize_ is the sum of sizes_ in Bytes mode and the number of
// chunks in Chunks mode.

ChunkCache::ChunkCache() : logger_(tav::mr::logging::LoggingManager::GetLogger("ChunkCache")) {}

ChunkCache::~ChunkCache() {
    ReturnAllToBudget();
}

void ChunkCache::SetBudget(CacheBudget* budget, CacheBudget::Member* member) {
    budget_ = budget;
    member_ = member;
}

void ChunkCache::SetCacheSizeInBytes(unsigned long maxBytes) {
    maximumSize_ = maxBytes;
    sizeMode_ = SizeMode::Bytes;
    currentSize_ = 0;
    for (const auto& [t, size] : sizes_)
        currentSize_ += size;
}

void ChunkCache::SetCacheSizeInChunks(unsigned long maxChunks) {
    maximumSize_ = maxChunks;
    sizeMode_ = SizeMode::Chunks;
    currentSize_ = chunks_.size();
}

unsigned long ChunkCache::GetFillPercentage() const {
    if (maximumSize_ == 0)
        return 100;
    return currentSize_ * 100 / maximumSize_;
}

bool ChunkCache::SpaceForChunks(unsigned long size) const {
    switch (sizeMode_) {
        case SizeMode::Bytes:
            return currentSize_ + size <= maximumSize_;
        case SizeMode::Chunks:
            return currentSize_ < maximumSize_;
        case SizeMode::None:
            break;
    }
    return false;
}

ChunkCache::DataChunkPtr ChunkCache::GetChunk(TimePoint t) const {
    auto it = chunks_.upper_bound(t);
    if (it == chunks_.begin())
        return {};
    const DataChunkPtr& chunk = std::prev(it)->second;
    // The chunk's own time point decides, not its key.
    if (chunk->GetTimePoint() <= t && t < chunk->GetTimePoint() + chunk->GetDuration())
        return chunk;
    return {};
}

ChunkCache::DataChunkPtr ChunkCache::GetPreviousChunk(TimePoint t) const {
    if (chunks_.empty())
        return {};
    const auto& [lastKey, last] = *chunks_.rbegin();
    if (t >= lastKey + last->GetDuration())
        return last;
    auto it = chunks_.upper_bound(t);
    if (it == chunks_.begin())
        return {};
    --it;
    if (it->first + it->second->GetDuration() <= t)
        return it->second;  // t lies in the gap after this chunk
    if (it == chunks_.begin())
        return {};
    return std::prev(it)->second;
}

ChunkCache::DataChunkPtr ChunkCache::GetNextChunk(TimePoint t) const {
    auto it = chunks_.upper_bound(t);
    if (it == chunks_.end())
        return {};
    return it->second;
}

bool ChunkCache::InsertAndRemoveHandledChunks(DataChunkPtr chunk, TimePoint t, unsigned long size) {
    return TryInsert(std::move(chunk), t, size) == Insertion::kInserted;
}

ChunkCache::Insertion ChunkCache::TryInsert(DataChunkPtr chunk, TimePoint t, unsigned long size) {
    CheckInsertion(t, size);
    while (!SpaceForChunks(size)) {
        if (EvictOldestHandled() != Eviction::kEvicted)
            return Insertion::kCacheFull;
    }
    if (budget_ != nullptr && !budget_->TryCharge(size))
        return Insertion::kBudgetFull;
    chunks_.emplace(t, std::move(chunk));
    sizes_.emplace(t, size);
    currentSize_ += Weight(size);
    LogSize("Inserted chunk", t);
    return Insertion::kInserted;
}

bool ChunkCache::DropHandled(TimePoint t) {
    auto size = sizes_.find(t);
    if (size == sizes_.end() || handled_.erase(t) == 0)
        return false;
    Erase(t, size->second);
    LogSize("Dropped chunk", t);
    return true;
}

void ChunkCache::ReturnAllToBudget() {
    if (budget_ == nullptr)
        return;
    budget_->Forget(member_);
    unsigned long bytes = 0;
    for (const auto& [t, size] : sizes_)
        bytes += size;
    budget_->Return(bytes);
}

void ChunkCache::Erase(TimePoint t, unsigned long size) {
    currentSize_ -= Weight(size);
    sizes_.erase(t);
    chunks_.erase(t);
    if (budget_ != nullptr)
        budget_->Release(member_, t, size);
}

void ChunkCache::HandleChunk(TimePoint t, bool remove) {
    auto size = sizes_.find(t);
    if (size == sizes_.end())
        return;
    if (!remove) {
        if (handled_.insert(t).second && budget_ != nullptr)
            budget_->MarkHandled(member_, t);
        return;
    }
    // handled_ keeps t on purpose; see the header.
    Erase(t, size->second);
    LogSize("Removed chunk", t);
}

void ChunkCache::Clear() {
    ReturnAllToBudget();
    sizes_.clear();
    handled_.clear();
    chunks_.clear();
    currentSize_ = 0;
    if (ShouldTrimHeap()) {
        malloc_trim(0);
        ++heapTrims;
    }
}

uint64_t ChunkCache::GetHeapTrimCount() {
    return heapTrims.load();
}

// A track's cache may have held hundreds of MB in small blocks that the
// allocator would otherwise keep for itself. Under a budget with a limit the
// memory of all caches is bounded together and the freed payloads serve the
// other tracks' next chunks: a trim at every writer's close would walk every
// arena and unmap page by page (a TLB flush on every core each time) only for
// the next chunks to fault the pages back in. The last cache to empty trims.
bool ChunkCache::ShouldTrimHeap() const {
    if (budget_ == nullptr)
        return true;
    const CacheBudget::Usage usage = budget_->GetUsage();
    return usage.limit == 0 || usage.bytesInUse == 0;
}

unsigned long ChunkCache::Weight(unsigned long size) const {
    switch (sizeMode_) {
        case SizeMode::Bytes:
            return size;
        case SizeMode::Chunks:
            return 1;
        case SizeMode::None:
            break;
    }
    return 0;
}

void ChunkCache::CheckInsertion(TimePoint t, unsigned long size) const {
    if (sizeMode_ == SizeMode::Bytes && size > maximumSize_) {
        std::ostringstream text;
        text << "Chunk size " << size << " must be lower than max cache size " << maximumSize_;
        throw MoreldStorageApi::InvalidArgumentError(text.str());
    }
    if (!chunks_.empty() && chunks_.rbegin()->first >= t) {
        std::ostringstream text;
        text << "Chunk at " << t
             << " must be > highest timepoint in cache: " << chunks_.rbegin()->first;
        MR_LOG(logger_, 50, text.str());
        throw MoreldStorageApi::InvalidArgumentError(text.str());
    }
}

ChunkCache::Eviction ChunkCache::EvictOldestHandled() {
    if (handled_.empty())
        return Eviction::kNothingHandled;
    const TimePoint oldest = *handled_.begin();
    auto size = sizes_.find(oldest);
    if (size == sizes_.end()) {
        // Left behind by a removal (HandleChunk with remove). It stays, so
        // every later eviction fails the same way until Clear.
        MR_LOG(logger_, 40,
               "We expected to find the size corresponding for the chunk at " << oldest);
        return Eviction::kSizeMissing;
    }
    handled_.erase(handled_.begin());
    Erase(oldest, size->second);
    return Eviction::kEvicted;
}

void ChunkCache::LogSize(const char* what, TimePoint t) const {
    MR_LOG(logger_, 10,
           what << " at " << t << ". Cache size is " << currentSize_ << " (" << GetFillPercentage()
                << "%)");
}
