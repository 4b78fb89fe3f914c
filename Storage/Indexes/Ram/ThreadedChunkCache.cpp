#include "Storage/Indexes/Ram/ThreadedChunkCache.h"

#include <algorithm>
#include <utility>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/ReaderLock.h"
#include "Platform/Tools/SyncPoint.h"

// Invariant: work_'s count, plus the one signal a flusher pass may hold between
// Wait and TakeOldestPending, is at least pending_.size(). So the thread never
// sleeps while a chunk is queued, and after Stop it drains them all. Clear
// empties both together.

ThreadedChunkCache::ThreadedChunkCache()
    : logger_(tav::mr::logging::LoggingManager::GetLogger("ThreadedChunkCache")) {
    cache_.SetCacheSizeInBytes(104857600);
}

ThreadedChunkCache::~ThreadedChunkCache() {
    Stop();
}

void ThreadedChunkCache::SetChunkFlusher(IChunkFlusher* flusher) {
    flusher_ = flusher;
}

void ThreadedChunkCache::SetPayloadPool(std::shared_ptr<PayloadPool> pool) {
    payloadPool_ = std::move(pool);
}

ThreadedChunkCache::DataChunkPtr ThreadedChunkCache::MakeChunk() const {
    if (payloadPool_)
        return payloadPool_->MakeChunk();
    return std::make_shared<Moreld::Plexa::DataChunk>();
}

void ThreadedChunkCache::SetTrackId(long trackId) {
    trackId_ = trackId;
}

// The limit may change while the flusher thread works (a writer resizing
// its cache), so the setters take the lock too.
void ThreadedChunkCache::SetCacheSizeInBytes(unsigned long maxBytes) {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
    cache_.SetCacheSizeInBytes(maxBytes);
    spaceAvailable_.notify_one();
}

void ThreadedChunkCache::SetCacheSizeInChunks(unsigned long maxChunks) {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
    cache_.SetCacheSizeInChunks(maxChunks);
    spaceAvailable_.notify_one();
}

unsigned long ThreadedChunkCache::GetCacheSize() const {
    Moreld::Tools::ReaderLock lock(cacheMutex_);
    return cache_.GetCurrentSize();
}

void ThreadedChunkCache::Run() {
    Stop();
    stopped_ = false;
    thread_ = std::make_unique<std::thread>(&ThreadedChunkCache::Flush, this);
}

void ThreadedChunkCache::Stop() {
    if (stopped_)
        return;
    stopped_ = true;
    work_.Signal();  // the thread may be waiting for work
    thread_->join();
    thread_.reset();
}

void ThreadedChunkCache::SetBudget(CacheBudget* budget) {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
    budget_ = budget;
    cache_.SetBudget(budget, this);
}

unsigned long ThreadedChunkCache::BoundWithinBudget(unsigned long bytes) const {
    const uint64_t limit = budget_ != nullptr ? budget_->GetLimit() : 0;
    return limit != 0 && limit < bytes ? static_cast<unsigned long>(limit) : bytes;
}

bool ThreadedChunkCache::Insert(DataChunkPtr chunk, TimePoint t, unsigned long size) {
    bool waited = false;
    for (;;) {
        // The oldest written chunks of every track go first, ours included:
        // no cache lock may be held here.
        if (budget_ != nullptr)
            budget_->Reclaim(size);
        Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
        switch (cache_.TryInsert(chunk, t, size)) {
            case ChunkCache::Insertion::kInserted:
                pending_.insert(t);
                MR_LOG(logger_, 10, "T" << trackId_ << ": Inserted chunk at " << t);
                work_.Signal();
                return waited;
            case ChunkCache::Insertion::kCacheFull:
                AwaitHandled(lock, t);
                break;
            case ChunkCache::Insertion::kBudgetFull:
                lock.unlock();
                AwaitBudget(t, size);
                break;
        }
        waited = true;
    }
}

void ThreadedChunkCache::AwaitHandled(Moreld::Tools::WriterLock<boost::shared_mutex>& lock,
                                      TimePoint t) {
    MR_LOG(logger_, 40, "T" << trackId_ << ": Waiting to insert chunk at " << t);
    IChunkFlusher* flusher = flusher_;
    if (flusher != nullptr)
        flusher->CacheIsWaiting(true);
    // Only HandleChunk and the limit setters wake us; there is no time-out.
    inserterWaiting_ = true;
    handledWhileWaiting_ = 0;
    spaceAvailable_.wait(lock);
    inserterWaiting_ = false;
    if (flusher != nullptr)
        flusher->CacheIsWaiting(false);
}

// Every cache of the process is full of chunks not yet written. Not this
// cache's own slow disk, so the flusher is not told (it would log every
// chunk louder); any track's written chunk wakes us.
void ThreadedChunkCache::AwaitBudget(TimePoint t, unsigned long size) {
    MR_LOG(logger_, 20, "T" << trackId_ << ": Waiting for the shared cache budget at " << t);
    LOOPSTORE_SYNC_POINT("ThreadedChunkCache::AwaitBudget:Waiting");
    budget_->AwaitRoom(size);
}

bool ThreadedChunkCache::DropHandled(TimePoint t) {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
    return cache_.DropHandled(t);
}

void ThreadedChunkCache::HandleChunk(TimePoint t, bool remove) {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
    cache_.HandleChunk(t, remove);
    if (inserterWaiting_ && ShouldWakeInserter())
        spaceAvailable_.notify_one();
    MR_LOG(logger_, 10, "T" << trackId_ << ": Handled chunk at " << t);
}

void ThreadedChunkCache::Clear() {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
    cache_.Clear();
    pending_.clear();
    // The signals of the dropped time points must not make the thread spin.
    work_.Setup(0);
}

ThreadedChunkCache::DataChunkPtr ThreadedChunkCache::GetChunk(TimePoint t) const {
    Moreld::Tools::ReaderLock lock(cacheMutex_);
    return cache_.GetChunk(t);
}

ThreadedChunkCache::DataChunkPtr ThreadedChunkCache::GetNextChunk(TimePoint t) const {
    Moreld::Tools::ReaderLock lock(cacheMutex_);
    return cache_.GetNextChunk(t);
}

ThreadedChunkCache::DataChunkPtr ThreadedChunkCache::GetPreviousChunk(TimePoint t) const {
    Moreld::Tools::ReaderLock lock(cacheMutex_);
    return cache_.GetPreviousChunk(t);
}

void ThreadedChunkCache::Flush() {
    // After Stop, keep going while signals are left: every chunk inserted
    // before Stop still reaches the flusher.
    while (!(stopped_ && work_.GetCount() < 1)) {
        work_.Wait();
        DataChunkPtr chunk;
        if (!TakeOldestPending(chunk))
            continue;
        // No lock here: the flusher writes to disk and calls HandleChunk.
        IChunkFlusher* flusher = flusher_;
        if (flusher != nullptr)
            flusher->Flush(std::move(chunk));
    }
}

// Waking the inserter for each handled chunk would cost two context switches
// per chunk once the cache is full: it would take the one freed place and
// wait again. It is woken once an eighth of the cached chunks can go, or when
// nothing is queued, since then no further HandleChunk may come.
bool ThreadedChunkCache::ShouldWakeInserter() {
    const unsigned long batch = std::max<unsigned long>(1, cache_.GetChunkCount() / 8);
    return ++handledWhileWaiting_ >= batch || pending_.empty();
}

bool ThreadedChunkCache::TakeOldestPending(DataChunkPtr& chunk) {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(cacheMutex_);
    if (pending_.empty())
        return false;
    auto oldest = pending_.begin();
    chunk = cache_.GetChunk(*oldest);  // empty when the chunk was removed meanwhile
    pending_.erase(oldest);
    return true;
}
