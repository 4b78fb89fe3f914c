#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>

namespace loopstore::cli {

// Turns SIGINT and SIGTERM into a flag that long-running commands poll, so
// that they stop cleanly (the last chunks sent, the stream closed) instead of
// dying. While an instance lives the two signals are blocked in the thread
// that made it and in the threads it starts afterwards (construct it before
// any other thread); a thread of its own waits for them.
//
// Construct and destroy on the same thread; Stopped() from any thread.
class StopSignal {
  public:
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    const std::atomic<bool>& Flag() const { return stopped_; }
    bool Stopped() const { return stopped_.load(); }

  private:
    sigset_t signals_;
    sigset_t previous_;
    std::atomic<bool> stopped_{false};
    std::atomic<bool> closing_{false};
    std::thread waiter_;
};

}  // namespace loopstore::cli
