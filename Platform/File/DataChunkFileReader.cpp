#include "Platform/File/DataChunkFileReader.h"

#include <sys/uio.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>

#include "Platform/File/ChunkPropertyBlock.h"
#include "Platform/File/ChunkRecordChecksum.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"

namespace Moreld::File {

namespace {

// The property block size of the record last read by any reader. Tracks
// mostly carry the same properties on every chunk, so a fresh reader can use
// it to read a whole record with one system call.
std::atomic<uint32_t> propertiesSizeHint{0};

const tav::mr::logging::Logger& Log() {
    static const tav::mr::logging::Logger logger =
        tav::mr::logging::LoggingManager::GetLogger("DataChunkFileReader");
    return logger;
}

std::string Hex(uint64_t value) {
    char text[19];
    std::snprintf(text, sizeof(text), "0x%016" PRIx64, value);
    return text;
}

}  // namespace

DataChunkFileReader::DataChunkFileReader(const std::string& fileName)
    : DataChunkFileReader(std::make_shared<SharedChunkFile>(fileName)) {}

DataChunkFileReader::DataChunkFileReader(std::shared_ptr<SharedChunkFile> file)
    : file_(std::move(file)),
      fileSize_(file_->Size()),
      propertiesSizeGuess_(propertiesSizeHint.load(std::memory_order_relaxed)) {}

void DataChunkFileReader::GetChunk(Moreld::Plexa::DataChunk& out, uint64_t offset,
                                   const std::set<std::string>& keys) {
    Read(out, offset, keys, nullptr);
}

void DataChunkFileReader::GetChunk(Moreld::Plexa::DataChunk& out, uint64_t offset,
                                   const std::set<std::string>& keys,
                                   Moreld::Time::TimePoint expectedTimePoint,
                                   uint64_t expectedSizeOnFile) {
    const Expectation expected{expectedTimePoint, expectedSizeOnFile};
    Read(out, offset, keys, &expected);
}

void DataChunkFileReader::Read(Moreld::Plexa::DataChunk& out, uint64_t offset,
                               const std::set<std::string>& keys, const Expectation* expected) {
    char raw[ChunkRecordHeader::kSize];
    const uint64_t guessedSize = expected != nullptr ? expected->sizeOnFile : recordSizeGuess_;
    bool bodyRead = false;
    const ChunkRecordHeader header =
        ReadHeader(offset, guessedSize, raw, out.MutableData(), bodyRead);
    if (expected != nullptr) {
        CheckExpectation(offset, header, *expected);
    }
    if (!bodyRead) {
        ReadBody(offset, header, out.MutableData());
    }
    propertiesSizeGuess_ = header.propertiesSize;
    recordSizeGuess_ = header.RecordSize();
    propertiesSizeHint.store(header.propertiesSize, std::memory_order_relaxed);
    VerifyChecksum(offset, header, raw, out.GetData());
    std::string error = ChunkPropertyBlock::Parse(properties_, keys, &out.MutableProperties());
    if (!error.empty()) {
        Fail(offset, error);
    }
    out.SetTimePoint(Moreld::Time::TimePoint::FromNanoseconds(header.timePointNs));
    out.SetDuration(Moreld::Time::TimePoint::FromNanoseconds(header.durationNs));
}

uint64_t DataChunkFileReader::FileGeneration(uint64_t offset) {
    const uint64_t known = file_->KnownGeneration();
    return known != 0 ? known : ReadFileGeneration(offset);
}

uint64_t DataChunkFileReader::ReadFileGeneration(uint64_t offset) {
    char bytes[ChunkFileHeader::kSize];
    const size_t got = file_->GetFile().ReadAt(bytes, sizeof(bytes), 0);
    const ChunkFileHeader header = ChunkFileHeader::Decode(bytes, got);
    if (!header.IsValid()) {
        Fail(offset, "the file has no valid header");
    }
    file_->SetKnownGeneration(header.GetGeneration());
    return header.GetGeneration();
}

// The header is written before the records of its generation, so the header
// read after a record is at least as new as the record: a record older than
// it is stale and refused by the caller's check.
uint64_t DataChunkFileReader::Revalidate(uint64_t offset, uint64_t keptGeneration,
                                         uint64_t recordGeneration) {
    if (recordGeneration == keptGeneration) {
        return keptGeneration;
    }
    return ReadFileGeneration(offset);
}

// With a plausible guess of the record's layout, the header, the property
// block and the payload come in one system call; the guess is only kept when
// the header read with it confirms both sizes, else ReadBody reads again.
ChunkRecordHeader DataChunkFileReader::ReadHeader(uint64_t offset, uint64_t guessedSize,
                                                  char (&raw)[ChunkRecordHeader::kSize],
                                                  std::string& payload, bool& bodyRead) {
    // A fresh reader reads the file header first: the record is fetched
    // meanwhile, so a cold lookup waits for one disk read, not two.
    if (file_->KnownGeneration() == 0 && guessedSize > 0)
        file_->GetFile().WillNeed(offset, guessedSize);
    uint64_t generation = FileGeneration(offset);
    if (offset > fileSize_ || fileSize_ - offset < sizeof(raw)) {
        Fail(offset,
             "no record header fits before the end of the file at " + std::to_string(fileSize_));
    }
    const uint64_t guessedBody = sizeof(raw) + propertiesSizeGuess_;
    const bool speculate = propertiesSizeGuess_ >= ChunkRecordHeader::kMinPropertiesSize &&
                           guessedSize >= guessedBody && guessedSize <= fileSize_ - offset;
    size_t got = 0;
    if (speculate) {
        properties_.resize(propertiesSizeGuess_);
        payload.resize(guessedSize - guessedBody);
        struct iovec iov[3] = {
            {raw, sizeof(raw)},
            {properties_.data(), properties_.size()},
            {payload.data(), payload.size()},
        };
        got = file_->GetFile().ReadAtV(iov, 3, offset);
    } else {
        got = file_->GetFile().ReadAt(raw, sizeof(raw), offset);
    }
    if (got < sizeof(raw)) {
        Fail(offset, "end of file inside the record header");
    }
    const ChunkRecordHeader header = ChunkRecordHeader::Decode(raw);
    generation = Revalidate(offset, generation, header.generation);
    std::string error = header.Check(offset, generation, fileSize_);
    if (!error.empty()) {
        Fail(offset, error);
    }
    bodyRead = speculate && got == guessedSize && header.propertiesSize == propertiesSizeGuess_ &&
               header.RecordSize() == guessedSize;
    return header;
}

void DataChunkFileReader::CheckExpectation(uint64_t offset, const ChunkRecordHeader& header,
                                           const Expectation& expected) const {
    const auto timePoint = Moreld::Time::TimePoint::FromNanoseconds(header.timePointNs);
    if (timePoint != expected.timePoint) {
        Fail(offset, "the record's time point " + timePoint.ToString() + " is not the expected " +
                         expected.timePoint.ToString());
    }
    if (header.RecordSize() != expected.sizeOnFile) {
        Fail(offset, "the record takes " + std::to_string(header.RecordSize()) +
                         " bytes, not the expected " + std::to_string(expected.sizeOnFile));
    }
}

// One system call reads the property block into the reused buffer and the
// payload straight into the chunk: the payload is never copied.
void DataChunkFileReader::ReadBody(uint64_t offset, const ChunkRecordHeader& header,
                                   std::string& payload) {
    properties_.resize(header.propertiesSize);
    payload.resize(header.payloadSize);
    struct iovec iov[2] = {
        {properties_.data(), properties_.size()},
        {payload.data(), payload.size()},
    };
    const uint64_t wanted = header.propertiesSize + header.payloadSize;
    if (file_->GetFile().ReadAtV(iov, 2, offset + ChunkRecordHeader::kSize) != wanted) {
        Fail(offset, "end of file inside the record");
    }
}

void DataChunkFileReader::VerifyChecksum(uint64_t offset, const ChunkRecordHeader& header,
                                         const char* rawHeader, const std::string& payload) const {
    ChunkRecordChecksum checksum;
    checksum.Update(rawHeader, ChunkRecordHeader::kChecksumOffset);
    checksum.Update(properties_.data(), properties_.size());
    checksum.Update(payload.data(), payload.size());
    const uint64_t computed = checksum.Digest();
    if (computed != header.checksum) {
        Fail(offset, "checksum mismatch (stored " + Hex(header.checksum) + ", computed " +
                         Hex(computed) + ")");
    }
}

void DataChunkFileReader::Fail(uint64_t offset, const std::string& what) const {
    const std::string text = "Chunk file " + GetFilename() + ": bad record at offset " +
                             std::to_string(offset) + ": " + what;
    MR_LOG(Log(), 50, text);
    throw MoreldStorageApi::CorruptionError(text);
}

}  // namespace Moreld::File
