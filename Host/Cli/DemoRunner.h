#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Host/Cli/DataLayout.h"
#include "Host/Cli/StorageClient.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// The main job, end to end, on a store of its own: starts an in-process
// server on a free loopback port, makes a pool and a few tracks, records
// test pattern video well past each track's size so that it loops (placed an
// hour back, so that live recording can follow), protects a range of the
// first track before it is overwritten, reads every track back and compares
// each chunk with what was sent, restarts the server and compares again.
// With `keepServing` it then goes on serving and records live on two tracks
// until `stop` is set.
//
// Owns its temporary directory (removed at the end) unless given one.
// Progress lines go to `log`. Not thread-safe.
class DemoRunner {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    struct Options {
        std::string dataDirectory;  // empty: a temporary directory
        int tracks = 3;
        uint64_t fileSize = 1024 * 1024;
        uint64_t filesPerTrack = 4;
        // One group of pictures of the test pattern per chunk.
        TimePoint chunkDuration = TimePoint::FromSeconds(1);
        double loops = 2.5;  // how many times each track's size is recorded
        // After the checks: serve and record live on two tracks until `stop`,
        // each grown by `liveFiles` files of the pool for a longer history.
        bool keepServing = false;
        uint64_t liveFiles = 28;
        std::string httpAddress = "127.0.0.1:7421";
        const std::atomic<bool>* stop = nullptr;
        // Told the page's address once the server is up for good.
        std::ostream* announce = nullptr;
    };

    struct Summary {
        int tracks = 0;
        uint64_t chunksWritten = 0;
        uint64_t bytesWritten = 0;
        uint64_t chunksVerified = 0;  // per verification pass
        uint64_t bytesVerified = 0;
        double loops = 0;
        double recordSeconds = 0;
        double totalSeconds = 0;
    };

    DemoRunner(Options options, std::ostream& log);

    // Throws CliError at the first thing that does not hold.
    Summary Run();

  private:
    struct Track {
        int64_t id = 0;
        TimePoint start;
    };

    std::vector<Track> CreateTracks(StorageClient& client);
    void RecordAll(StorageClient& client, const std::vector<Track>& tracks, Summary& summary);
    // Records test pattern chunks from `from` and remembers a print of each;
    // returns where the recording ends.
    TimePoint Record(StorageClient& client, const Track& track, TimePoint from, TimePoint duration,
                     uint64_t bytes, Summary& summary);
    void ProtectFirstTrack(StorageClient& client, const Track& track);
    void CheckProtectionSurvived(StorageClient& client, const Track& track);
    void VerifyAll(StorageClient& client, const std::vector<Track>& tracks, Summary& summary,
                   const char* when);
    uint64_t VerifyTrack(StorageClient& client, const Track& track, uint64_t& bytes);
    uint64_t BytesPerTrack() const;
    // Grows and records the live tracks until `stop`; `address` is the
    // server's gRPC address, `httpPort` the page's port.
    void RecordLive(StorageClient& client, const std::string& address, int httpPort,
                    const std::vector<Track>& tracks);
    size_t LiveTracks() const;

    // What each chunk held when it was written, by (track, time point).
    struct ChunkPrint {
        uint64_t size = 0;
        size_t hash = 0;
    };

    Options options_;
    std::map<std::pair<int64_t, int64_t>, ChunkPrint> written_;
    std::ostream& log_;
    DataLayout layout_;
    int64_t protectedTrack_ = 0;
    TimePoint protectedFrom_;
    TimePoint protectedTo_;
};

}  // namespace loopstore::cli
