#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Platform/Logging/Logger.h"
#include "Storage/Server/FileSystem/LoopRecordingCommonTrackStorage.h"

// Lifts the track storage's expired protections once a period, on a thread
// of its own that runs from construction to destruction. The storage's
// clock says what is expired; the period only says how often to look.
//
// Refers to `storage`, which must outlive it. The destructor stops and joins
// the thread; a sweep in progress finishes first.
class ProtectionExpiry {
  public:
    ProtectionExpiry(LoopRecordingCommonTrackStorage& storage, std::chrono::milliseconds period);
    ~ProtectionExpiry();
    ProtectionExpiry(const ProtectionExpiry&) = delete;
    ProtectionExpiry& operator=(const ProtectionExpiry&) = delete;

  private:
    void Run();
    // False when stopping.
    bool WaitForPeriod();
    void Sweep();

    LoopRecordingCommonTrackStorage& storage_;
    const std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;  // guarded by mutex_
    tav::mr::logging::Logger logger_;
    std::thread thread_;  // last: starts once everything above is built
};
