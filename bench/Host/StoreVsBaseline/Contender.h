#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/ChunkStream.h"

namespace loopstore::bench {

// Reads one track of a contender. One thread at a time.
class TrackReading {
  public:
    virtual ~TrackReading() = default;

    // Reads the chunk holding `timePoint` into `payload`; false when none.
    virtual bool Get(int64_t timePoint, std::string& payload) = 0;
    // Reads the first chunk starting after `timePoint` and sets `timePoint`
    // to its start; false at the end of the track.
    virtual bool Next(int64_t& timePoint, std::string& payload) = 0;
};

// One of the stores the benchmark compares: the plain baseline or loopstore
// through its host API. The same driver runs every phase on each.
//
// Ingest is called once per track, each call on a thread of its own; the
// other operations from one thread while no ingest runs.
class Contender {
  public:
    struct Range {
        int64_t begin = -1;  // start of the oldest chunk
        int64_t end = -1;    // end of the newest chunk
    };

    virtual ~Contender() = default;

    virtual std::string Name() const = 0;
    // Creates the files and the tracks; not part of any measurement.
    virtual void Prepare() = 0;
    // Writes every chunk of `stream` to track `track` (0-based) and returns
    // once they are stored and their files synced.
    virtual void Ingest(int track, ChunkStream& stream) = 0;
    // Every file the contender wrote (chunks and indexes).
    virtual std::vector<std::string> Files() const = 0;
    // The chunk files of one track.
    virtual std::vector<std::string> TrackFiles(int track) const = 0;
    virtual Range TrackRange(int track) = 0;
    virtual std::unique_ptr<TrackReading> OpenReader(int track) = 0;
    // Releases everything and removes the files; Prepare was called.
    virtual void Close() = 0;
};

}  // namespace loopstore::bench
