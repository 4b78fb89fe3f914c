#pragma once

#include <mutex>

#include "Platform/Tools/ThreadAnnotations.h"

namespace Moreld::Tools {

// std::mutex as a lock the thread-safety analysis knows. Hold it through
// MutexLock; lock() and unlock() are there for std::condition_variable_any
// and the rare lock taken in one function and released in another.
//
// Not recursive; thread-safe, of course.
class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

    // Tells the analysis that the caller holds the lock, where it cannot
    // see it (a callback run under the lock). Checks nothing at run time.
    void AssertHeld() const ASSERT_CAPABILITY(this) {}

  private:
    std::mutex mutex_;
};

}  // namespace Moreld::Tools
