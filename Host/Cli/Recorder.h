#pragma once

#include <cstdint>
#include <optional>

#include "Host/Cli/IChunkSource.h"
#include "Host/Cli/StorageClient.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// Sends a chunk source to one track through a write stream. Time stamps
// start at the track's end (so a new recording continues the track), at now
// for an empty track, or where the caller says, and advance by each chunk's
// duration.
//
// Refers to the client, which must outlive it. One thread.
class Recorder {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    struct Summary {
        uint64_t chunks = 0;  // sent and accepted
        uint64_t stored = 0;  // stored by the server, as it reports
        uint64_t bytes = 0;
        uint64_t dropped = 0;  // of the input, in no chunk
        TimePoint first;
        TimePoint end;
    };

    Recorder(StorageClient& client, int64_t trackId);

    // Records the whole source. Throws CliError (unknown track, refused
    // chunk, broken stream); what was accepted before stays stored.
    Summary Run(IChunkSource& source, std::optional<TimePoint> start);

  private:
    TimePoint StartTime(std::optional<TimePoint> start);

    StorageClient& client_;
    const int64_t trackId_;
};

}  // namespace loopstore::cli
