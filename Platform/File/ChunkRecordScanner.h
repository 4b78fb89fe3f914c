#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "Platform/File/ChunkRecordHeader.h"
#include "Platform/File/File.h"
#include "Platform/Time/TimePoint.h"

namespace Moreld::File {

// Walks the records of one generation of a chunk file from the first record
// offset and stops at the first one that is not valid (bad magic, sizes,
// generation, property block or checksum): everything after it is dead space.
//
// Memory stays bounded whatever the file size: record headers are read with
// small reads and payloads are hashed through one reusable buffer.
//
// Borrows `file`, which must outlive the scanner. Not synchronised.
class ChunkRecordScanner {
  public:
    // Scans records of `generation` that end by `limit` (the usable size of
    // the file).
    ChunkRecordScanner(const File& file, uint64_t generation, uint64_t limit);

    // Runs the scan. Throws std::runtime_error on an I/O error.
    void Scan();

    // Offset just after the last valid record (the first record offset when
    // there is none).
    uint64_t GetTail() const { return tail_; }
    // Time points of the valid records.
    const std::set<Moreld::Time::TimePoint>& GetTimePoints() const { return timePoints_; }
    // Number of valid records (several may share a time point).
    uint64_t GetRecordCount() const { return recordCount_; }
    // Why the scan stopped at GetTail() ("" when it reached the limit).
    const std::string& GetStopReason() const { return stopReason_; }

  private:
    // Steps of one record; each returns "" when it holds, else what is wrong.
    std::string ReadHeader(uint64_t offset, ChunkRecordHeader& header) const;
    std::string VerifyBody(uint64_t offset, const ChunkRecordHeader& header);

    const File& file_;
    const uint64_t generation_;
    const uint64_t limit_;
    std::unique_ptr<char[]> buffer_;

    uint64_t tail_;
    std::set<Moreld::Time::TimePoint> timePoints_;
    uint64_t recordCount_ = 0;
    std::string stopReason_;
};

}  // namespace Moreld::File
