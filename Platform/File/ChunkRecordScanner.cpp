#include "Platform/File/ChunkRecordScanner.h"

#include <algorithm>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/ChunkPropertyBlock.h"
#include "Platform/File/ChunkRecordChecksum.h"

namespace Moreld::File {

namespace {

// Large enough for sequential reads to run at device speed, small enough to
// stay in cache while hashed.
constexpr size_t kBufferSize = size_t{1} << 20;

}  // namespace

ChunkRecordScanner::ChunkRecordScanner(const File& file, uint64_t generation, uint64_t limit)
    : file_(file),
      generation_(generation),
      limit_(limit),
      tail_(ChunkFileHeader::kFirstRecordOffset) {}

void ChunkRecordScanner::Scan() {
    tail_ = ChunkFileHeader::kFirstRecordOffset;
    timePoints_.clear();
    recordCount_ = 0;
    stopReason_.clear();
    while (tail_ < limit_) {
        ChunkRecordHeader header;
        stopReason_ = ReadHeader(tail_, header);
        if (stopReason_.empty()) {
            stopReason_ = VerifyBody(tail_, header);
        }
        if (!stopReason_.empty()) {
            return;
        }
        timePoints_.insert(Moreld::Time::TimePoint::FromNanoseconds(header.timePointNs));
        ++recordCount_;
        tail_ += header.RecordSize();
    }
}

std::string ChunkRecordScanner::ReadHeader(uint64_t offset, ChunkRecordHeader& header) const {
    char bytes[ChunkRecordHeader::kSize];
    if (file_.ReadAt(bytes, sizeof(bytes), offset) != sizeof(bytes)) {
        return "end of file inside a record header";
    }
    header = ChunkRecordHeader::Decode(bytes);
    return header.Check(offset, generation_, limit_);
}

std::string ChunkRecordScanner::VerifyBody(uint64_t offset, const ChunkRecordHeader& header) {
    if (!buffer_) {
        buffer_ = std::make_unique_for_overwrite<char[]>(kBufferSize);
    }
    char head[ChunkRecordHeader::kSize];
    header.EncodeTo(head);
    ChunkRecordChecksum checksum;
    checksum.Update(head, ChunkRecordHeader::kChecksumOffset);

    // Property blocks are small; one larger than the buffer is read whole.
    std::string properties(header.propertiesSize, '\0');
    const uint64_t propertiesOffset = offset + ChunkRecordHeader::kSize;
    if (file_.ReadAt(properties.data(), properties.size(), propertiesOffset) != properties.size()) {
        return "end of file inside the property block";
    }
    std::string error = ChunkPropertyBlock::Parse(properties, {}, nullptr);
    if (!error.empty()) {
        return error;
    }
    checksum.Update(properties.data(), properties.size());

    uint64_t position = propertiesOffset + header.propertiesSize;
    uint64_t left = header.payloadSize;
    while (left > 0) {
        const size_t piece = static_cast<size_t>(std::min<uint64_t>(left, kBufferSize));
        if (file_.ReadAt(buffer_.get(), piece, position) != piece) {
            return "end of file inside the payload";
        }
        checksum.Update(buffer_.get(), piece);
        position += piece;
        left -= piece;
    }
    if (checksum.Digest() != header.checksum) {
        return "checksum mismatch";
    }
    return {};
}

}  // namespace Moreld::File
