#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "Host/Cli/DataLayout.h"
#include "Host/Cli/StorageClient.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// The main job, end to end, on a store of its own: starts an in-process
// server on a free loopback port, makes a pool and a few tracks, records
// synthetic streams well past each track's size so that it loops, protects a
// range of the first track before it is overwritten, reads every track back
// and compares each chunk byte for byte with what was sent, restarts the
// server and compares again.
//
// Owns its temporary directory (removed at the end) unless given one.
// Progress lines go to `log`. Not thread-safe.
class DemoRunner {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    struct Options {
        std::string dataDirectory;  // empty: a temporary directory
        int tracks = 3;
        uint64_t fileSize = 2 * 1024 * 1024;
        uint64_t filesPerTrack = 4;
        uint64_t bitRate = 8'000'000;
        TimePoint chunkDuration = TimePoint::FromMilliseconds(40);
        double loops = 2.5;  // how many times each track's size is recorded
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
    void Record(StorageClient& client, const Track& track, TimePoint from, TimePoint duration,
                Summary& summary);
    void ProtectFirstTrack(StorageClient& client, const Track& track);
    void CheckProtectionSurvived(StorageClient& client, const Track& track);
    void VerifyAll(StorageClient& client, const std::vector<Track>& tracks, Summary& summary,
                   const char* when);
    uint64_t VerifyTrack(StorageClient& client, const Track& track, uint64_t& bytes);
    TimePoint StreamDuration() const;

    Options options_;
    std::ostream& log_;
    DataLayout layout_;
    int64_t protectedTrack_ = 0;
    TimePoint protectedFrom_;
    TimePoint protectedTo_;
};

}  // namespace loopstore::cli
