#include "bench/Host/StoreVsBaseline/ChunkStream.h"

#include <cstring>
#include <random>

namespace loopstore::bench {

ChunkStream::ChunkStream(const Workload& workload, int track)
    : count_(workload.ChunksPerTrack()), durationNs_(workload.chunkDurationNs) {
    payload_.resize(workload.chunkBytes);
    std::mt19937_64 random(static_cast<uint64_t>(track) + 1);
    for (size_t i = 0; i + sizeof(uint64_t) <= payload_.size(); i += sizeof(uint64_t)) {
        const uint64_t word = random();
        std::memcpy(payload_.data() + i, &word, sizeof word);
    }
}

Protocol::Chunk& ChunkStream::Next() {
    const int64_t index = static_cast<int64_t>(next_++);
    if (payload_.size() >= sizeof index)
        std::memcpy(payload_.data(), &index, sizeof index);
    chunk_.Clear();
    chunk_.mutable_timepoint()->set_nanoseconds(kStart + index * durationNs_);
    chunk_.mutable_duration()->set_nanoseconds(durationNs_);
    chunk_.set_data(payload_);
    return chunk_;
}

int64_t ChunkStream::StampOf(const std::string& payload) {
    int64_t index = -1;
    if (payload.size() >= sizeof index)
        std::memcpy(&index, payload.data(), sizeof index);
    return index;
}

int64_t ChunkStream::IndexAt(const Workload& workload, int64_t timePoint) {
    return (timePoint - kStart) / workload.chunkDurationNs;
}

}  // namespace loopstore::bench
