#pragma once

#include <cstdint>
#include <string>

namespace loopstore::bench {

// The shape of one ingest workload: how many tracks, how large and how long
// each chunk is, how large each track's ring of files is and how many chunk
// bytes are written over all tracks. A plain value.
struct Workload {
    // Files per track: enough for the ring to recycle one file at a time
    // while most of the track stays readable.
    static constexpr uint64_t kFilesPerTrack = 8;
    // Room a record takes beyond its payload in either store (headers,
    // properties), for sizing files that must hold a few chunks.
    static constexpr uint64_t kRecordOverhead = 128;
    static constexpr uint64_t kMinChunksPerFile = 4;

    std::string name;
    int tracks = 0;
    uint64_t chunkBytes = 0;
    int64_t chunkDurationNs = 0;
    uint64_t trackBytes = 0;  // the files of one track together
    uint64_t totalBytes = 0;  // chunk payload written over all tracks

    // 16 tracks of 64 KiB chunks, 2 GiB written into 64 MiB tracks.
    static Workload A();
    // 100 tracks of 20,000-byte chunks, 16 GiB written into 64 MiB tracks.
    static Workload B();

    // The same workload with the track size and the volume written both
    // multiplied by `factor`, so that each ring wraps as often; files never
    // shrink below a few chunks.
    Workload Scaled(double factor) const;

    // Size of one preallocated file: a track's bytes over kFilesPerTrack,
    // rounded down to 4 KiB.
    uint64_t FileSize() const;
    uint64_t ChunksPerTrack() const { return totalBytes / tracks / chunkBytes; }
    // Payload really written: whole chunks on every track.
    uint64_t BytesWritten() const { return ChunksPerTrack() * chunkBytes * tracks; }
    // How many times each track's ring is filled.
    double Wraps() const;
};

}  // namespace loopstore::bench
