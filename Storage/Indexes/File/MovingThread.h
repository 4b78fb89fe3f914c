#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <string>
#include <thread>

#include "Platform/Logging/Logger.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/SharedMessageQueue.h"
#include "Storage/Indexes/File/MovedData.h"

// A worker thread that moves files between directories in the background:
// callers Push MovedData requests, the thread pops them from a
// SharedMessageQueue and renames their files one by one, in order. A file
// that cannot be moved (missing, unreadable origin attribute, rename
// refused) is logged at level 40 and skipped; the rest of the request goes on.
//
// The thread waits `pollMs` for a request; when none comes it checks whether
// Stop was called and waits again. Requests queued before Stop are therefore
// all handled before the thread ends.
//
// Ownership: owns its queue, the queued requests and its thread; the
// destructor stops the thread.
//
// Thread-safety: Push, WaitUntilDone and the counters may be called from any
// thread. Start and Stop belong to the owner and must not run concurrently
// with each other.
class MovingThread {
  public:
    static constexpr unsigned long kDefaultPollMs = 1000;

    // Not started.
    explicit MovingThread(unsigned long pollMs = kDefaultPollMs);
    // Stop().
    ~MovingThread();
    MovingThread(const MovingThread&) = delete;
    MovingThread& operator=(const MovingThread&) = delete;

    // Starts the worker. Throws std::runtime_error when it already runs.
    void Start();
    // Asks the worker to end and joins it: it finishes the queued requests
    // first, then ends within one poll interval. Does nothing when the
    // worker is not running.
    void Stop();
    bool IsRunning() const { return worker_.joinable(); }

    // Queues `request`; it waits for Start when the worker is not running.
    void Push(MovedData request);
    // Blocks until every request pushed so far has been handled.
    // Precondition: the worker runs, or nothing is pending.
    void WaitUntilDone();

    // Files moved, and files skipped on an error, since construction.
    uint64_t GetMovedCount() const { return moved_.load(); }
    uint64_t GetFailedCount() const { return failed_.load(); }

  private:
    void Run();
    void Handle(const MovedData& request);
    // True when `file` reached its destination.
    bool MoveOne(const MovedData& request, const ChunkFile& file);
    // The directory `source` goes to; false (logged) when its origin
    // attribute is missing or unreadable.
    bool ResolveDestination(const MovedData& request, const std::string& source,
                            std::string& directory);
    // Stamps `path` with "user.__emptyFile"; a failure is logged only.
    void MarkEmpty(const std::string& path);
    void MarkHandled();

    const unsigned long pollMs_;
    Moreld::Tools::SharedMessageQueue<MovedData> queue_;
    std::thread worker_;
    std::atomic<bool> stopRequested_{false};

    Moreld::Tools::Mutex pendingMutex_;
    std::condition_variable_any allHandled_;
    uint64_t pending_ GUARDED_BY(pendingMutex_) = 0;  // pushed, not yet handled

    std::atomic<uint64_t> moved_{0};
    std::atomic<uint64_t> failed_{0};

    tav::mr::logging::Logger logger_;
};
