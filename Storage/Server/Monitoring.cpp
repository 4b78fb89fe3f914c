#include "Storage/Server/Monitoring.h"

#include <chrono>

#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/ReaderLock.h"
#include "Platform/Tools/WriterLock.h"

namespace {

std::int64_t SteadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

Monitoring::WorkerInfo::WorkerInfo(WorkerType type, long workerId, long threadId, long trackId,
                                   const std::string& description)
    : type(type),
      workerId(workerId),
      threadId(threadId),
      trackId(trackId),
      description(description) {}

void Monitoring::WorkerInfo::Clear() {
    *this = WorkerInfo();
}

Monitoring::WorkerData::WorkerData(std::int64_t now) {
    Clear(now);
}

void Monitoring::WorkerData::Clear(std::int64_t now) {
    info_.Clear();
    // Zero-byte fillers: they fall in the window for a second but add nothing.
    ring_.assign(kRingSize, Sample{0, now});
    next_ = 0;
}

void Monitoring::WorkerData::Add(unsigned long bytes, std::int64_t now) {
    info_.totalBytes += static_cast<long>(bytes);
    ring_[next_] = Sample{static_cast<long>(bytes), now};
    next_ = (next_ + 1) % kRingSize;
}

long Monitoring::WorkerData::ComputeThroughput(std::int64_t now) const {
    const std::int64_t since = now - kWindowNanoseconds;
    long bytes = 0;
    for (const Sample& sample : ring_) {
        if (sample.time >= since) {
            bytes += sample.bytes;
        }
    }
    return bytes;
}

Monitoring::Monitoring() : Monitoring(&SteadyNanoseconds) {}

Monitoring::Monitoring(Clock clock) : clock_(std::move(clock)) {}

Monitoring::~Monitoring() = default;

void Monitoring::Add(const WorkerInfo& info) {
    const std::int64_t now = clock_();
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(workersMutex_);
    auto it = workers_.try_emplace(info.workerId, now).first;
    Moreld::Tools::MutexLock worker(it->second.mutex);
    it->second.data.SetInfo(info);
}

void Monitoring::Remove(long workerId) {
    Moreld::Tools::WriterLock<boost::shared_mutex> lock(workersMutex_);
    workers_.erase(workerId);
}

void Monitoring::Log(long workerId, unsigned long bytes) {
    const std::int64_t now = clock_();
    Moreld::Tools::ReaderLock lock(workersMutex_);
    auto it = workers_.find(workerId);
    if (it == workers_.end()) {
        return;
    }
    Moreld::Tools::MutexLock worker(it->second.mutex);
    it->second.data.Add(bytes, now);
}

Monitoring::WorkerInfo Monitoring::GetWorkerInfo(long workerId) const {
    const std::int64_t now = clock_();
    Moreld::Tools::ReaderLock lock(workersMutex_);
    auto it = workers_.find(workerId);
    if (it == workers_.end()) {
        return WorkerInfo();
    }
    Moreld::Tools::MutexLock worker(it->second.mutex);
    WorkerInfo info = it->second.data.GetInfo();
    info.throughput = it->second.data.ComputeThroughput(now);
    return info;
}

std::vector<std::pair<long, long>> Monitoring::GetActiveWorkers() const {
    Moreld::Tools::ReaderLock lock(workersMutex_);
    std::vector<std::pair<long, long>> workers;
    workers.reserve(workers_.size());
    for (const auto& [id, worker] : workers_) {
        Moreld::Tools::MutexLock data(worker.mutex);
        workers.emplace_back(id, worker.data.GetInfo().trackId);
    }
    return workers;
}

std::size_t Monitoring::GetNumberWorkers(long trackId) const {
    Moreld::Tools::ReaderLock lock(workersMutex_);
    std::size_t count = 0;
    for (const auto& [id, worker] : workers_) {
        Moreld::Tools::MutexLock data(worker.mutex);
        if (worker.data.GetInfo().trackId == trackId) {
            ++count;
        }
    }
    return count;
}

Moreld::Tools::Mutex& Monitoring::GetMutex(long trackId) {
    Moreld::Tools::MutexLock lock(trackMutexesMutex_);
    // std::map never moves its elements: the reference outlives the lock.
    return trackMutexes_[trackId];
}
