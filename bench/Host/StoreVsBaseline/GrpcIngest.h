#pragma once

#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// Ingest through the network: a loopstore server (LoopstoreServer) on
// 127.0.0.1 and a port the system picks, over a store of its own under
// `directory`, and one client write stream per track, each on its own
// thread and its own connection, sending the workload's chunks.
//
// Owns the server and the store's files for the length of Run (removed at
// the end, also on failure). Not thread-safe.
class GrpcIngest {
  public:
    // `cacheMemoryBytes` goes to the server as its writers' budget.
    // `streamWindowBytes` too, as its per-stream receive window.
    GrpcIngest(std::string directory, Workload workload, unsigned long cacheMemoryBytes,
               int streamWindowBytes);

    // Chunk payload MB (10^6 B) per second from the first chunk sent to the
    // last stream closed (its writer drained). Throws std::runtime_error
    // when the server refuses a track or a stream.
    double Run();
    // The process's peak RSS while the chunks were sent (clients and server
    // alike), after Run.
    uint64_t PeakRssBytes() const { return peakRssBytes_; }

  private:
    // Seconds from the first chunk sent to the last stream closed.
    double WriteAll(int port, const std::vector<long>& trackIds);

    const std::string directory_;
    const Workload workload_;
    const unsigned long cacheMemoryBytes_;
    const int streamWindowBytes_;
    uint64_t peakRssBytes_ = 0;
};

}  // namespace loopstore::bench
