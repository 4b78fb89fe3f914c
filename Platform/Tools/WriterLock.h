#pragma once

#include "Platform/Tools/SharedMutex.h"

namespace Moreld::Tools {

// Holds a shared mutex exclusively from construction to destruction.
// unlock() and lock() let go of it and take it again in between (a
// condition_variable_any waits through them); the destructor releases it
// only if held.
//
// Not thread-safe: one thread owns the object.
template <typename Native = std::shared_mutex>
class SCOPED_CAPABILITY WriterLock {
  public:
    explicit WriterLock(BasicSharedMutex<Native>& mutex) ACQUIRE(mutex) : mutex_(mutex) {
        mutex_.lock();
    }
    ~WriterLock() RELEASE() {
        if (held_)
            mutex_.unlock();
    }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

    void lock() ACQUIRE() {
        mutex_.lock();
        held_ = true;
    }
    void unlock() RELEASE() {
        held_ = false;
        mutex_.unlock();
    }

  private:
    BasicSharedMutex<Native>& mutex_;
    bool held_ = true;
};

}  // namespace Moreld::Tools
