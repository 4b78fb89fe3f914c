#pragma once

#include <condition_variable>

#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/MutexLock.h"

namespace Moreld::Tools {

// A counting semaphore whose count can be read and reset. Signal() adds one
// to the count; Wait() blocks until the count is positive and takes one.
// Thread-safe: any number of threads may signal and wait at once.
class Semaphore {
  public:
    explicit Semaphore(long count = 0) : count_(count) {}

    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Sets the count to `count`, forgetting pending signals; wakes waiters
    // when the new count is positive.
    void Setup(long count);

    // Blocks until the count is positive, then decrements it.
    void Wait();

    // Increments the count and wakes one waiter.
    void Signal();

    // The count at the moment of the call; may be stale on return.
    long GetCount() const;

  private:
    mutable Mutex mutex_;
    std::condition_variable_any positive_;
    long count_ GUARDED_BY(mutex_);
};

}  // namespace Moreld::Tools
