#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <thread>

#include "Platform/Tools/Mutex.h"

namespace Moreld::Tools {

// Runs a task on its own thread every interval, until stopped: background
// upkeep that must happen "at least every so often". The first run comes one
// interval after the start. A stop wakes the thread at once; it never waits
// out the interval, only a run in progress.
//
// Owns its thread. The task runs on that thread only and must not throw
// (an escaping exception ends the process). Stop and the destructor may be
// called from any thread but the task's own.
class PeriodicThread {
  public:
    using Task = std::function<void()>;

    // Starts the thread.
    PeriodicThread(std::chrono::milliseconds interval, Task task);
    // Stops the thread.
    ~PeriodicThread();
    PeriodicThread(const PeriodicThread&) = delete;
    PeriodicThread& operator=(const PeriodicThread&) = delete;

    // Wakes the thread and joins it; no run starts afterwards. Idempotent.
    void Stop();

  private:
    void Loop();

    const std::chrono::milliseconds interval_;
    const Task task_;
    Mutex mutex_;
    std::condition_variable_any wake_;
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace Moreld::Tools
