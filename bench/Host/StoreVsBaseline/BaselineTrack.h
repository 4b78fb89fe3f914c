#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/Contender.h"

namespace loopstore::bench {

// The plain way to keep a loop recording, the yardstick of the benchmark:
// records (a 24-byte head and the payload) written back to back with one
// pwritev each into a ring of preallocated files, each full file synced with
// fdatasync, the oldest file recycled in place (its chunks leave the index
// first) and every chunk indexed by time point in a std::map.
//
// Owns the descriptors of its files, open for its whole life. One writer
// thread; readers may run beside it (the index is guarded by a mutex, the
// files are only read with pread).
class BaselineTrack {
  public:
    static constexpr uint64_t kFileHeaderSize = 16;
    static constexpr uint64_t kRecordHeaderSize = 24;

    // Opens `paths`, preallocated files of `fileSize` bytes each, in ring
    // order. Throws std::runtime_error naming a file that cannot be opened.
    BaselineTrack(std::vector<std::string> paths, uint64_t fileSize);
    ~BaselineTrack();
    BaselineTrack(const BaselineTrack&) = delete;
    BaselineTrack& operator=(const BaselineTrack&) = delete;

    // Writes one chunk after the previous one; moves to the next file of the
    // ring (syncing the full one, recycling the next) when it does not fit.
    // Throws std::runtime_error naming the file on a failed write or sync,
    // or when a chunk is larger than a file.
    void Append(int64_t timePoint, int64_t duration, const std::string& payload);
    // Syncs the file being filled.
    void Sync();

    bool Get(int64_t timePoint, std::string& payload) const;
    bool Next(int64_t& timePoint, std::string& payload) const;
    Contender::Range Range() const;

    // The file being filled (ring position), the chunks indexed, and the
    // file that holds the chunk starting at `timePoint` (-1 when none).
    int CurrentFile() const { return current_; }
    size_t ChunkCount() const;
    int FileOf(int64_t timePoint) const;

  private:
    struct Location {
        int file;
        uint64_t offset;  // of the record's head
        uint64_t size;    // payload bytes
        int64_t duration;
    };

    void StartFile();
    void MoveToNextFile();
    void Write(const Location& at, int64_t timePoint, const std::string& payload);
    bool Read(int64_t timePoint, const Location& at, std::string& payload) const;

    const std::vector<std::string> paths_;
    const uint64_t fileSize_;
    std::vector<int> fds_;
    int current_ = 0;
    uint64_t tail_ = 0;  // 0 until the current file's header is written
    uint64_t generation_ = 0;
    mutable std::mutex mutex_;  // guards index_
    std::map<int64_t, Location> index_;
};

}  // namespace loopstore::bench
