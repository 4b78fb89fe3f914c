#include "Platform/File/DataChunkFileAppender.h"

#include <fcntl.h>
#include <sys/uio.h>

#include <algorithm>
#include <stdexcept>

#include "Platform/File/ChunkPropertyBlock.h"
#include "Platform/File/ChunkRecordChecksum.h"
#include "Platform/File/ChunkRecordHeader.h"
#include "Platform/File/ChunkRecordScanner.h"
#include "Platform/File/Env.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/SyncPoint.h"

namespace Moreld::File {

namespace {

ChunkFileHeader ReadFileHeader(const File& file) {
    char bytes[ChunkFileHeader::kSize];
    const size_t got = file.ReadAt(bytes, sizeof(bytes), 0);
    return ChunkFileHeader::Decode(bytes, got);
}

}  // namespace

DataChunkFileAppender::DataChunkFileAppender(const std::string& fileName, bool keepContent,
                                             uint64_t fileSize)
    : file_(Env::Get().OpenFile(fileName, O_RDWR, "Cannot open chunk file")),
      capacity_(std::min(fileSize, file_->Size())),
      header_(ReadFileHeader(*file_)),
      newGenerationPending_(!keepContent),
      logger_(tav::mr::logging::LoggingManager::GetLogger("DataChunkFileAppender")) {}

DataChunkFileAppender::~DataChunkFileAppender() {
    // An appender that wrote nothing has nothing to make durable (recovery
    // opens many files only to scan them), nor has one synced since.
    if (unsynced_ && !noFlush_) {
        try {
            file_->DataSync();
        } catch (const std::exception& e) {
            MR_LOG(logger_, 50, e.what());
        }
    }
    try {
        file_->Close();
    } catch (const std::exception& e) {
        MR_LOG(logger_, 50, e.what());
    }
}

bool DataChunkFileAppender::Append(const Moreld::Plexa::DataChunk& chunk) {
    return AppendAt(chunk, GetTail());
}

bool DataChunkFileAppender::Append(const Moreld::Plexa::DataChunk& chunk, uint64_t offset) {
    const bool rewinds = offset != ChunkFileHeader::kFirstRecordOffset && offset != GetTail();
    if (rewinds && !(Fits(offset, chunk.GetSizeOnFile()) && RewindTo(offset))) {
        MR_LOG(logger_, 40,
               "Chunk file " << GetFilename() << ": refused chunk at " << chunk.GetTimePoint()
                             << " for offset " << offset << ", the records end at " << GetTail());
        return false;
    }
    return AppendAt(chunk, offset);
}

std::set<Moreld::Time::TimePoint> DataChunkFileAppender::GetTimePoints() const {
    EnsureScanned();
    return timePoints_;
}

uint64_t DataChunkFileAppender::GetTail() const {
    if (newGenerationPending_) {
        return ChunkFileHeader::kFirstRecordOffset;
    }
    EnsureScanned();
    return tail_;
}

// A scan limited to `offset` ends exactly there only when a record does.
// The end mark of the next append then cuts the records that followed.
bool DataChunkFileAppender::RewindTo(uint64_t offset) {
    if (newGenerationPending_ || offset > GetTail() || !header_.IsValid())
        return false;
    ChunkRecordScanner scanner(*file_, header_.GetGeneration(), offset);
    scanner.Scan();
    if (scanner.GetTail() != offset)
        return false;
    MR_LOG(logger_, 30,
           "Chunk file " << GetFilename() << ": records from offset " << offset << " to " << tail_
                         << " leave generation " << header_.GetGeneration());
    tail_ = offset;
    timePoints_ = scanner.GetTimePoints();
    return true;
}

void DataChunkFileAppender::Sync() {
    file_->DataSync();
    unsynced_ = false;
    LOOPSTORE_SYNC_POINT("DataChunkFileAppender::Sync:Done");
}

bool DataChunkFileAppender::Fits(uint64_t offset, uint64_t size) const {
    return offset <= capacity_ && capacity_ - offset >= size;
}

// The header goes first: should the record then be torn, the new generation
// is merely empty, and records of older generations can never be mistaken for
// its own.
void DataChunkFileAppender::BeginGeneration() {
    header_ = header_.Next();
    char bytes[ChunkFileHeader::kSize];
    header_.EncodeTo(bytes);
    newGenerationPending_ = false;
    scanned_ = true;
    tail_ = ChunkFileHeader::kFirstRecordOffset;
    timePoints_.clear();
    unsynced_ = true;
    file_->WriteAt(bytes, sizeof(bytes), 0);
    MR_LOG(
        logger_, 20,
        "Chunk file " << GetFilename() << ": generation " << header_.GetGeneration() << " begins");
}

void DataChunkFileAppender::EncodeHead(const Moreld::Plexa::DataChunk& chunk,
                                       uint64_t propertiesSize) {
    head_.resize(ChunkRecordHeader::kSize);
    head_.reserve(ChunkRecordHeader::kSize + propertiesSize);
    ChunkPropertyBlock::AppendTo(chunk.GetProperties(), head_);

    ChunkRecordHeader header = ChunkRecordHeader::ForGeneration(header_.GetGeneration());
    header.propertiesSize = static_cast<uint32_t>(propertiesSize);
    header.payloadSize = chunk.GetDataSize();
    header.timePointNs = chunk.GetTimePoint().ToNanoseconds();
    header.durationNs = chunk.GetDuration().ToNanoseconds();
    header.EncodeTo(head_.data());

    ChunkRecordChecksum checksum;
    checksum.Update(head_.data(), ChunkRecordHeader::kChecksumOffset);
    checksum.Update(head_.data() + ChunkRecordHeader::kSize, propertiesSize);
    checksum.Update(chunk.GetData().data(), chunk.GetDataSize());
    header.checksum = checksum.Digest();
    header.EncodeTo(head_.data());
}

bool DataChunkFileAppender::AppendAt(const Moreld::Plexa::DataChunk& chunk, uint64_t offset) {
    const uint64_t size = chunk.GetSizeOnFile();
    if (!Fits(offset, size)) {
        MR_LOG(logger_, 40,
               "Chunk file " << GetFilename() << ": chunk at " << chunk.GetTimePoint() << " of "
                             << size << "B does not fit at offset " << offset << " of " << capacity_
                             << "B");
        return false;
    }
    if (offset == ChunkFileHeader::kFirstRecordOffset) {
        BeginGeneration();
    }
    EncodeHead(chunk, ChunkPropertyBlock::EncodedSize(chunk.GetProperties()));
    // The payload goes to the kernel straight from the chunk, never copied.
    // The end mark clears the magic of whatever follows: after a damaged
    // record has been overwritten, an intact record of the same generation
    // further on must not become reachable again.
    static const char kEndMark[4] = {0, 0, 0, 0};
    const bool marksEnd = capacity_ - (offset + size) >= ChunkRecordHeader::kSize;
    struct iovec iov[3] = {
        {head_.data(), head_.size()},
        {const_cast<char*>(chunk.GetData().data()), chunk.GetData().size()},
        {const_cast<char*>(kEndMark), sizeof(kEndMark)},
    };
    unsynced_ = true;
    file_->WriteAtV(iov, marksEnd ? 3 : 2, offset);
    tail_ = offset + size;
    timePoints_.insert(chunk.GetTimePoint());
    return true;
}

void DataChunkFileAppender::EnsureScanned() const {
    if (scanned_) {
        return;
    }
    if (header_.IsValid()) {
        ChunkRecordScanner scanner(*file_, header_.GetGeneration(), capacity_);
        scanner.Scan();
        tail_ = scanner.GetTail();
        timePoints_ = scanner.GetTimePoints();
        MR_LOG(logger_, 20,
               "Chunk file " << GetFilename() << ": generation " << header_.GetGeneration()
                             << " holds " << scanner.GetRecordCount() << " records up to offset "
                             << tail_);
        if (!scanner.GetStopReason().empty()) {
            MR_LOG(logger_, 10,
                   "Chunk file " << GetFilename() << ": records end at offset " << tail_ << ": "
                                 << scanner.GetStopReason());
        }
    } else {
        MR_LOG(logger_, 20, "Chunk file " << GetFilename() << " has no valid header yet");
    }
    scanned_ = true;
}

}  // namespace Moreld::File
