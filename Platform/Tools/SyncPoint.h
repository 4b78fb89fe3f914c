#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace Moreld::Tools {

// Named points in the code where a test can run its own code: block until
// another thread gets somewhere (a latch), fail, or kill the process to
// simulate a crash at an exact step. With no callback set anywhere, a point
// costs one relaxed atomic load.
//
// Thread-safe. Callbacks run on the thread that reaches the point, with no
// lock of this class held.
class SyncPoint {
  public:
    using Callback = std::function<void()>;

    static SyncPoint& Instance();

    void SetCallback(const std::string& point, Callback callback);
    void ClearCallback(const std::string& point);
    void ClearAll();

    // Runs the callback of `point`, if any.
    void Process(const char* point);
    bool Enabled() const { return enabled_.load(std::memory_order_relaxed); }

  private:
    std::atomic<bool> enabled_{false};
    std::mutex mutex_;  // guards callbacks_
    std::map<std::string, Callback> callbacks_;
};

}  // namespace Moreld::Tools

#define LOOPSTORE_SYNC_POINT(point)                                     \
    do {                                                                \
        auto& loopstore_sync_ = ::Moreld::Tools::SyncPoint::Instance(); \
        if (loopstore_sync_.Enabled())                                  \
            loopstore_sync_.Process(point);                             \
    } while (false)
