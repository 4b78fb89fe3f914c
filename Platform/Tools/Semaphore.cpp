#include "Platform/Tools/Semaphore.h"

namespace Moreld::Tools {

// Notifying under the lock keeps the condition variable alive for the
// notifier: a woken waiter cannot return and let the owner destroy the
// semaphore before notify_*() is done with it.

void Semaphore::Setup(long count) {
    MutexLock lock(mutex_);
    count_ = count;
    if (count_ > 0) {
        positive_.notify_all();
    }
}

void Semaphore::Wait() {
    MutexLock lock(mutex_);
    positive_.wait(lock, [this]() REQUIRES(mutex_) { return count_ > 0; });
    --count_;
}

void Semaphore::Signal() {
    MutexLock lock(mutex_);
    ++count_;
    positive_.notify_one();
}

long Semaphore::GetCount() const {
    MutexLock lock(mutex_);
    return count_;
}

}  // namespace Moreld::Tools
