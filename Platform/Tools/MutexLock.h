#pragma once

#include "Platform/Tools/Mutex.h"

namespace Moreld::Tools {

// Holds a lock exclusively from construction to destruction: a Mutex, or a
// shared mutex as its writer (WriterLock). unlock() and lock() let go of it
// and take it again in between (std::condition_variable_any waits through
// them); the destructor releases it only if held.
//
// Not thread-safe: one thread owns the object.
template <typename Lockable = Mutex>
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Lockable& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() {
        if (held_)
            mutex_.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void lock() ACQUIRE() {
        mutex_.lock();
        held_ = true;
    }
    void unlock() RELEASE() {
        held_ = false;
        mutex_.unlock();
    }

  private:
    Lockable& mutex_;
    bool held_ = true;
};

}  // namespace Moreld::Tools
