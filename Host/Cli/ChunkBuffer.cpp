#include "Host/Cli/ChunkBuffer.h"

#include <utility>

#include "Platform/Plexa/Converter.h"
#include "Platform/Tools/MutexLock.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;
using Moreld::Tools::MutexLock;

namespace {

ChunkBuffer::TimePoint Start(const Protocol::Chunk& chunk) {
    return Converter::From(chunk.timepoint());
}

ChunkBuffer::TimePoint End(const Protocol::Chunk& chunk) {
    return Start(chunk) + Converter::From(chunk.duration());
}

void Count(ChunkBuffer::Dropped& dropped, const Protocol::Chunk& chunk) {
    if (dropped.chunks == 0)
        dropped.from = Start(chunk);
    dropped.to = End(chunk);
    ++dropped.chunks;
    dropped.bytes += chunk.data().size();
}

}  // namespace

ChunkBuffer::ChunkBuffer(uint64_t maxBytes) : maxBytes_(maxBytes) {}

bool ChunkBuffer::Push(Protocol::Chunk chunk) {
    auto shared = std::make_shared<const Protocol::Chunk>(std::move(chunk));
    {
        MutexLock lock(mutex_);
        if (failed_)
            return false;
        bytes_ += shared->data().size();
        chunks_.push_back(std::move(shared));
        // The newest chunk stays even when it alone is over the limit.
        while (bytes_ > maxBytes_ && chunks_.size() > 1)
            DropOldest();
    }
    changed_.notify_all();
    return true;
}

void ChunkBuffer::DropOldest() {
    const ChunkPtr& oldest = chunks_.front();
    if (sent_ > 0)
        --sent_;
    else {
        Count(recent_, *oldest);
        Count(total_, *oldest);
    }
    bytes_ -= oldest->data().size();
    chunks_.pop_front();
}

void ChunkBuffer::Close(std::chrono::steady_clock::time_point drainBy) {
    {
        MutexLock lock(mutex_);
        drainBy_ = drainBy;
    }
    changed_.notify_all();
}

void ChunkBuffer::Fail() {
    MutexLock lock(mutex_);
    failed_ = true;
}

bool ChunkBuffer::DrainOver() const {
    return drainBy_ && std::chrono::steady_clock::now() >= *drainBy_;
}

ChunkBuffer::ChunkPtr ChunkBuffer::NextToSend() {
    const std::vector<ChunkPtr> next = NextBatchToSend(0);
    return next.empty() ? nullptr : next.front();
}

std::vector<ChunkBuffer::ChunkPtr> ChunkBuffer::NextBatchToSend(uint64_t maxBytes) {
    MutexLock lock(mutex_);
    while (sent_ == chunks_.size()) {
        if (drainBy_)
            return {};
        changed_.wait(lock);
    }
    if (DrainOver())
        return {};
    std::vector<ChunkPtr> batch{chunks_[sent_]};
    uint64_t bytes = batch.front()->data().size();
    for (size_t i = sent_ + 1; i < chunks_.size(); ++i) {
        bytes += chunks_[i]->data().size();
        if (bytes > maxBytes)
            break;
        batch.push_back(chunks_[i]);
    }
    return batch;
}

void ChunkBuffer::MarkSent(const ChunkPtr& chunk) {
    MutexLock lock(mutex_);
    // The chunk may have been dropped meanwhile; then it is not the next one.
    if (sent_ < chunks_.size() && chunks_[sent_] == chunk)
        ++sent_;
}

void ChunkBuffer::Confirm(TimePoint storedEnd, bool resend) {
    MutexLock lock(mutex_);
    while (!chunks_.empty() && Start(*chunks_.front()) < storedEnd) {
        if (sent_ == 0 && !resend)
            break;  // never sent on this stream: it cannot be stored
        bytes_ -= chunks_.front()->data().size();
        chunks_.pop_front();
        sent_ = sent_ > 0 ? sent_ - 1 : 0;
        ++confirmed_;
    }
    if (resend)
        sent_ = 0;
}

void ChunkBuffer::ConfirmAllSent() {
    MutexLock lock(mutex_);
    for (; sent_ > 0; --sent_) {
        bytes_ -= chunks_.front()->data().size();
        chunks_.pop_front();
        ++confirmed_;
    }
}

bool ChunkBuffer::Wait(std::chrono::milliseconds delay) {
    MutexLock lock(mutex_);
    auto until = std::chrono::steady_clock::now() + delay;
    if (drainBy_ && *drainBy_ < until)
        until = *drainBy_;
    // A loop rather than a predicate: the analysis cannot see the lock
    // held inside a lambda.
    while (!DrainOver() && changed_.wait_until(lock, until) == std::cv_status::no_timeout) {
    }
    return !DrainOver();
}

uint64_t ChunkBuffer::Confirmed() const {
    MutexLock lock(mutex_);
    return confirmed_;
}

uint64_t ChunkBuffer::Unsent() const {
    MutexLock lock(mutex_);
    return chunks_.size() - sent_;
}

ChunkBuffer::Dropped ChunkBuffer::TakeDropped() {
    MutexLock lock(mutex_);
    return std::exchange(recent_, Dropped());
}

ChunkBuffer::Dropped ChunkBuffer::TotalDropped() const {
    MutexLock lock(mutex_);
    return total_;
}

}  // namespace loopstore::cli
