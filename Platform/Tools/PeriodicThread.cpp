#include "Platform/Tools/PeriodicThread.h"

#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/SyncPoint.h"

namespace Moreld::Tools {

PeriodicThread::PeriodicThread(std::chrono::milliseconds interval, Task task)
    : interval_(interval), task_(std::move(task)), thread_([this] { Loop(); }) {}

PeriodicThread::~PeriodicThread() {
    Stop();
}

void PeriodicThread::Stop() {
    {
        MutexLock lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void PeriodicThread::Loop() {
    MutexLock lock(mutex_);
    for (;;) {
        // A steady deadline: spurious wake-ups do not shorten the interval.
        const auto due = std::chrono::steady_clock::now() + interval_;
        if (wake_.wait_until(lock, due, [this]() REQUIRES(mutex_) { return stopping_; }))
            return;
        lock.unlock();
        task_();
        LOOPSTORE_SYNC_POINT("PeriodicThread::Loop:Ran");
        lock.lock();
    }
}

}  // namespace Moreld::Tools
