#pragma once

#include <cstdint>

#include "Platform/Protocol/Protocol.pb.h"
#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// The chunks one track receives, the same for every store: chunk i starts at
// kStart + i x duration and carries a fixed pseudo-random payload whose first
// eight bytes are i, so that a read can tell which chunk it got.
//
// Next() fills the message anew from a payload template each time, as a host
// that receives every chunk from the network would: a writer takes the
// message's content over. Every contender pays that copy alike. One thread
// at a time.
class ChunkStream {
  public:
    // 2023-11-14T22:13:20Z: any instant would do.
    static constexpr int64_t kStart = 1'700'000'000'000'000'000;

    ChunkStream(const Workload& workload, int track);

    uint64_t Count() const { return count_; }
    bool Done() const { return next_ >= count_; }
    // The next chunk, the caller's to consume; valid until the following
    // call. Precondition: !Done().
    Protocol::Chunk& Next();

    // The index stamped into a payload, or -1 when it is too short.
    static int64_t StampOf(const std::string& payload);
    // The index of the chunk a time point of this workload falls in.
    static int64_t IndexAt(const Workload& workload, int64_t timePoint);

  private:
    const uint64_t count_;
    const int64_t durationNs_;
    uint64_t next_ = 0;
    std::string payload_;
    Protocol::Chunk chunk_;
};

}  // namespace loopstore::bench
