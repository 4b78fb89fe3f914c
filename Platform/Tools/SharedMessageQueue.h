#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <stdexcept>
#include <utility>

#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/MutexLock.h"

namespace Moreld::Tools {

// An unbounded first-in first-out queue that hands messages from producer
// threads to consumer threads. Pop waits for a message up to a timeout, so a
// consumer wakes regularly and can notice that it was asked to stop.
//
// Owns the queued messages until they are popped; messages still queued when
// the queue is destroyed are destroyed with it.
//
// Thread-safety: every member may be called from any number of threads at
// once. One mutex guards the messages; a condition variable wakes one waiting
// consumer per pushed message. Each message is popped by exactly one consumer.
template <typename T>
class SharedMessageQueue {
  public:
    static constexpr unsigned long kDefaultTimeoutMs = 1000;

    SharedMessageQueue() = default;
    SharedMessageQueue(const SharedMessageQueue&) = delete;
    SharedMessageQueue& operator=(const SharedMessageQueue&) = delete;

    // Appends `message` and wakes one waiting consumer.
    void Push(T message) {
        {
            MutexLock lock(mutex_);
            messages_.push_back(std::move(message));
        }
        notEmpty_.notify_one();
    }

    // Removes and returns the oldest message, waiting up to `timeoutMs`
    // milliseconds for one to arrive. Throws std::runtime_error "Timeout for
    // SharedMessageQueue" when none arrived in time; the queue is unchanged.
    T Pop(unsigned long timeoutMs = kDefaultTimeoutMs) {
        MutexLock lock(mutex_);
        if (!notEmpty_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                [this]() REQUIRES(mutex_) { return !messages_.empty(); })) {
            throw std::runtime_error("Timeout for SharedMessageQueue");
        }
        T message = std::move(messages_.front());
        messages_.pop_front();
        return message;
    }

    // The number of queued messages; may be stale as soon as it is returned.
    std::size_t Size() const {
        MutexLock lock(mutex_);
        return messages_.size();
    }

  private:
    mutable Mutex mutex_;
    std::condition_variable_any notEmpty_;
    std::deque<T> messages_ GUARDED_BY(mutex_);
};

}  // namespace Moreld::Tools
