#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Services/ITrackReader.h"

namespace loopstore::host {

// Walks the chunks of one track that overlap a time range, in time order,
// through a track reader. A record that cannot be read (damaged on disk) is
// skipped and its start kept for the report: the chunks after it are still
// exported.
//
// Refers to `reader`, which must outlive it. One export per object; not
// thread-safe.
class RangeExporter {
  public:
    RangeExporter(MoreldStorageApi::ITrackReader& reader, long trackId,
                  const Protocol::KeyList& keys);

    // Hands every chunk that overlaps [from, to) to `send`, which returns
    // false to stop. Returns the number of chunks sent.
    long Run(const Protocol::TimePoint& from, int64_t to,
             const std::function<bool(const Protocol::Chunk&)>& send);
    // Starts of the records skipped, in order.
    const std::vector<int64_t>& Damaged() const { return damaged_; }

  private:
    // The start of the first chunk that overlaps [at, ...): the one holding
    // `at`, else the next one. False when there is none.
    bool FirstAt(const Protocol::TimePoint& at, Protocol::TimePoint& start);
    // Reads the chunk starting at `start`; false, the record noted as
    // damaged, when it cannot be read.
    bool Read(const Protocol::TimePoint& start, Protocol::Chunk& chunk);

    MoreldStorageApi::ITrackReader& reader_;
    const long trackId_;
    const Protocol::KeyList& keys_;
    std::vector<int64_t> damaged_;
    tav::mr::logging::Logger logger_;
};

}  // namespace loopstore::host
