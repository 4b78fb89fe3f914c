#pragma once

#include <shared_mutex>

#include "Platform/Tools/ThreadAnnotations.h"

namespace Moreld::Tools {

// A reader/writer lock the thread-safety analysis knows, over `Native`
// (std::shared_mutex by default; boost::shared_mutex where its fairness
// between readers and writers is wanted). Hold it through ReaderLock or
// WriterLock.
//
// Thread-safe.
template <typename Native = std::shared_mutex>
class CAPABILITY("mutex") BasicSharedMutex {
  public:
    BasicSharedMutex() = default;
    BasicSharedMutex(const BasicSharedMutex&) = delete;
    BasicSharedMutex& operator=(const BasicSharedMutex&) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    void lock_shared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() RELEASE_SHARED() { mutex_.unlock_shared(); }

  private:
    Native mutex_;
};

using SharedMutex = BasicSharedMutex<>;

}  // namespace Moreld::Tools
