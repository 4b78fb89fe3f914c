#pragma once

#include "Platform/Tools/SharedMutex.h"

namespace Moreld::Tools {

// Holds a shared mutex shared from construction to destruction.
//
// Not thread-safe: one thread owns the object.
template <typename Native = std::shared_mutex>
class SCOPED_CAPABILITY ReaderLock {
  public:
    explicit ReaderLock(BasicSharedMutex<Native>& mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) {
        mutex_.lock_shared();
    }
    ~ReaderLock() RELEASE() { mutex_.unlock_shared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    BasicSharedMutex<Native>& mutex_;
};

}  // namespace Moreld::Tools
