#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <ostream>

#include "Host/Cli/IChunkSource.h"
#include "Host/Cli/StorageClient.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

class ChunkBuffer;

// Sends a chunk source to one track. Chunks are stamped on the reading thread
// and handed to a TrackSender, which survives the server going away.
//
// Two clocks: the wall clock at each chunk's arrival, smoothed by the
// stream's clock (LiveStamper), for live input; or the stream's clock alone,
// starting at the track's end (so a new recording continues the track), at
// now for an empty track, or where the caller says, for files and generated
// streams, which are read faster than real time.
//
// Refers to the client, which must outlive it. One thread calls Run.
class Recorder {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    enum class Clock { kWall, kStream };

    struct Options {
        Clock clock = Clock::kStream;
        // kStream: the first chunk's time point instead of the track's end.
        std::optional<TimePoint> start;
        // kWall: how far the stream's clock may lag the wall clock.
        TimePoint tolerance = TimePoint::FromSeconds(1);
        // Chunks kept while the server is away, and for sending again.
        uint64_t bufferBytes = 64 << 20;
        // Set (by a signal) to end the recording; may be null.
        const std::atomic<bool>* stop = nullptr;
        // Where reconnections and losses are reported; null for nowhere.
        std::ostream* notes = nullptr;
    };

    struct Summary {
        uint64_t chunks = 0;  // read and stamped
        uint64_t stored = 0;  // sent and stored by the server
        uint64_t bytes = 0;
        uint64_t dropped = 0;  // of the input, in no chunk
        // Chunks dropped because the buffer was full while the server was away.
        uint64_t lostChunks = 0;
        uint64_t lostBytes = 0;
        uint64_t reconnects = 0;
        // kWall: chunks shortened because the input came faster than real time.
        uint64_t shortened = 0;
        TimePoint first;
        TimePoint end;
    };

    Recorder(StorageClient& client, int64_t trackId);

    // Records the whole source (until it ends or `stop` is set). Throws
    // CliError (unknown track, refused chunk, broken input, a track that ends
    // in the future under the wall clock, chunks left unsent because the
    // server did not come back); what was accepted before stays stored.
    Summary Run(IChunkSource& source, const Options& options);
    // The stream clock from `start` (or the track's end).
    Summary Run(IChunkSource& source, std::optional<TimePoint> start);

  private:
    // The end of the track's content, -1 ns when it holds none.
    TimePoint TrackEnd();
    void Read(IChunkSource& source, const Options& options, ChunkBuffer& buffer, Summary& summary);
    void Finish(ChunkBuffer& buffer, const Summary& summary) const;

    StorageClient& client_;
    const int64_t trackId_;
};

}  // namespace loopstore::cli
