#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>

#include "Platform/Tools/Mutex.h"

// Sync points exist in test builds only. LOOPSTORE_SYNC_POINTS (set by the
// build, option of the same name) chooses; left unset, NDEBUG turns them off.
// Off, a point compiles to nothing: no call, no name in the binary. Tests that
// need them skip (tests/Support/SyncPoints.h).
#if !defined(LOOPSTORE_SYNC_POINTS)
#if defined(NDEBUG)
#define LOOPSTORE_SYNC_POINTS 0
#else
#define LOOPSTORE_SYNC_POINTS 1
#endif
#endif

namespace Moreld::Tools {

// Named points in the code where a test can run its own code: block until
// another thread gets somewhere (a latch), fail, or kill the process to
// simulate a crash at an exact step. With no callback set anywhere, a point
// costs one relaxed atomic load.
//
// Thread-safe. Callbacks run on the thread that reaches the point, with no
// lock of this class held.
//
// Compiled out unless LOOPSTORE_SYNC_POINTS (above): the class stays, so
// tests link either way, but no point reaches it.
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

    // Whether this build's points call Process at all.
    static constexpr bool kCompiledIn = LOOPSTORE_SYNC_POINTS != 0;

  private:
    std::atomic<bool> enabled_{false};
    Mutex mutex_;
    std::map<std::string, Callback> callbacks_ GUARDED_BY(mutex_);
};

}  // namespace Moreld::Tools

#if LOOPSTORE_SYNC_POINTS
#define LOOPSTORE_SYNC_POINT(point)                                     \
    do {                                                                \
        auto& loopstore_sync_ = ::Moreld::Tools::SyncPoint::Instance(); \
        if (loopstore_sync_.Enabled())                                  \
            loopstore_sync_.Process(point);                             \
    } while (false)
#else
#define LOOPSTORE_SYNC_POINT(point) \
    do {                            \
    } while (false)
#endif
