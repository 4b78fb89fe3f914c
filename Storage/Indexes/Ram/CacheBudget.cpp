#include "Storage/Indexes/Ram/CacheBudget.h"

#include <algorithm>
#include <limits>

#include "Platform/Tools/MutexLock.h"

void CacheBudget::SetLimit(uint64_t bytes) {
    Moreld::Tools::MutexLock lock(mutex_);
    limit_ = bytes;
    changed_.notify_all();
}

uint64_t CacheBudget::GetLimit() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return limit_;
}

CacheBudget::Usage CacheBudget::GetUsage() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return Usage{used_, peak_, limit_, dropped_};
}

bool CacheBudget::TryCharge(uint64_t size) {
    Moreld::Tools::MutexLock lock(mutex_);
    if (!Fits(size))
        return false;
    used_ += size;
    peak_ = std::max(peak_, used_);
    return true;
}

void CacheBudget::Release(const Member* member, TimePoint t, uint64_t size) {
    Moreld::Tools::MutexLock lock(mutex_);
    auto it = order_.find({member, t});
    if (it != order_.end()) {
        candidates_.erase(it->second);
        order_.erase(it);
    }
    used_ -= size;
    changed_.notify_all();
}

void CacheBudget::Return(uint64_t size) {
    Moreld::Tools::MutexLock lock(mutex_);
    used_ -= size;
    changed_.notify_all();
}

void CacheBudget::MarkHandled(Member* member, TimePoint t) {
    Moreld::Tools::MutexLock lock(mutex_);
    auto [it, added] = order_.try_emplace({member, t}, nextOrder_);
    if (!added)
        return;  // handled twice: keeps its first place
    candidates_.emplace(nextOrder_++, Candidate{member, t});
    changed_.notify_all();
}

void CacheBudget::Forget(const Member* member) {
    Moreld::Tools::MutexLock lock(mutex_);
    for (auto it = order_.lower_bound(
             {member, TimePoint::FromNanoseconds(std::numeric_limits<int64_t>::min())});
         it != order_.end() && it->first.first == member;) {
        candidates_.erase(it->second);
        it = order_.erase(it);
    }
}

bool CacheBudget::TakeOldest(Candidate& oldest) {
    if (candidates_.empty())
        return false;
    oldest = candidates_.begin()->second;
    order_.erase({oldest.member, oldest.t});
    candidates_.erase(candidates_.begin());
    return true;
}

bool CacheBudget::Reclaim(uint64_t size) {
    for (;;) {
        Candidate oldest{};
        {
            Moreld::Tools::MutexLock lock(mutex_);
            if (Fits(size))
                return true;
            if (!TakeOldest(oldest))
                return false;
        }
        // No budget lock here: the member takes its own cache lock, and
        // gives the bytes back through Release.
        if (oldest.member->DropHandled(oldest.t)) {
            Moreld::Tools::MutexLock lock(mutex_);
            ++dropped_;
        }
    }
}

void CacheBudget::AwaitRoom(uint64_t size) {
    Moreld::Tools::MutexLock lock(mutex_);
    changed_.wait(lock, [&]() REQUIRES(mutex_) { return Fits(size) || !candidates_.empty(); });
}
