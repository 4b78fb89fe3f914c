#pragma once

#include <boost/thread/shared_mutex.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/SharedMutex.h"
#include "Storage/Server/WorkerType.h"

// Keeps the list of active workers (track writers and readers), the bytes
// each has moved and its throughput over the last second, and hands out one
// mutex per track, which the factories and the track operations hold while
// they create workers or change the track.
//
// Owned by the service factory for the life of the service; workers register
// themselves (Add) for their own lifetime and log what they move (Log).
//
// Thread safety: every method may be called from any thread. The worker map
// is guarded by a reader/writer lock: Add and Remove take it exclusively, the
// others shared. Each worker also has a small mutex of its own, so that its
// samples can be read (GetWorkerInfo) while it logs; it is taken after the
// map lock and nothing is taken under it (Add, under the exclusive map lock,
// takes it too: uncontended there, and the data then has one guard). The per-track mutexes are
// never taken here: GetMutex only hands them out, under a mutex of its own.
class Monitoring {
  public:
    // Nanoseconds of a monotonic clock; must be safe to call from any thread.
    using Clock = std::function<std::int64_t()>;

    // What is known of one worker: a plain copyable value.
    struct WorkerInfo {
        // An unset info: every field 0 or empty.
        WorkerInfo() = default;
        // Total bytes and throughput 0.
        WorkerInfo(WorkerType type, long workerId, long threadId, long trackId,
                   const std::string& description);

        // Resets every field to 0 / empty.
        void Clear();

        WorkerType type = WorkerType::Unset;
        long workerId = 0;  // the factories use the worker object's address
        long threadId = 0;  // of the creating thread
        long trackId = 0;
        long totalBytes = 0;  // logged since the worker was added
        long throughput = 0;  // bytes of the last second, set by GetWorkerInfo
        std::string description;
    };

    // A worker's info and a ring of its latest samples, (bytes, clock time).
    // Not thread-safe; Monitoring guards each one.
    class WorkerData {
      public:
        static constexpr std::size_t kRingSize = 200;
        static constexpr std::int64_t kWindowNanoseconds = 1'000'000'000;

        // Cleared at `now`.
        explicit WorkerData(std::int64_t now);

        // Clears the info and fills the ring with (0, now) samples.
        void Clear(std::int64_t now);

        // Counts `bytes` in the total and records them as a sample taken at
        // `now`, overwriting the oldest sample.
        void Add(unsigned long bytes, std::int64_t now);

        // Bytes of the samples taken in the second up to `now` (inclusive).
        // Only the latest kRingSize samples are seen, so a worker logging
        // faster than that per second is under-reported.
        long ComputeThroughput(std::int64_t now) const;

        const WorkerInfo& GetInfo() const { return info_; }
        // Takes every field of `info`; the ring is kept.
        void SetInfo(const WorkerInfo& info) { info_ = info; }

      private:
        struct Sample {
            long bytes;
            std::int64_t time;
        };

        WorkerInfo info_;
        std::vector<Sample> ring_;
        std::size_t next_ = 0;  // the sample to overwrite next
    };

    // Uses the steady clock.
    Monitoring();
    explicit Monitoring(Clock clock);
    virtual ~Monitoring();

    Monitoring(const Monitoring&) = delete;
    Monitoring& operator=(const Monitoring&) = delete;

    // Registers the worker info.workerId, or updates it: the entry takes
    // every field of `info`, and an existing entry keeps its samples.
    void Add(const WorkerInfo& info);

    // Forgets the worker; unknown ids are ignored.
    void Remove(long workerId);

    // Counts `bytes` moved by the worker now; unknown ids are ignored.
    void Log(long workerId, unsigned long bytes);

    // A copy of the worker's info with its current throughput, or an unset
    // info when the worker is unknown.
    WorkerInfo GetWorkerInfo(long workerId) const;

    // (worker id, track id) of every worker, by ascending worker id.
    std::vector<std::pair<long, long>> GetActiveWorkers() const;

    // Number of workers, writers and readers alike, on the track.
    std::size_t GetNumberWorkers(long trackId) const;

    // The track's mutex, created on first request. The reference stays
    // valid for the life of this object.
    Moreld::Tools::Mutex& GetMutex(long trackId);

  private:
    // A map entry: the data and the mutex that lets Log and GetWorkerInfo
    // meet on it under the shared map lock. Taken after workersMutex_.
    struct Worker {
        explicit Worker(std::int64_t now) : data(now) {}

        mutable Moreld::Tools::Mutex mutex;
        WorkerData data GUARDED_BY(mutex);
    };

    const Clock clock_;
    mutable Moreld::Tools::BasicSharedMutex<boost::shared_mutex> workersMutex_;
    std::map<long, Worker> workers_ GUARDED_BY(workersMutex_);
    Moreld::Tools::Mutex trackMutexesMutex_;
    std::map<long, Moreld::Tools::Mutex> trackMutexes_
        GUARDED_BY(trackMutexesMutex_);  // never shrinks
};
