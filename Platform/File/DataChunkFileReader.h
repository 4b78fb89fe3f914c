#pragma once

#include <cstdint>
#include <set>
#include <string>

#include <memory>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/ChunkRecordHeader.h"
#include "Platform/File/SharedChunkFile.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Time/TimePoint.h"

namespace Moreld::File {

// Reads single records of a chunk file (format in doc/chunk_file_format.md)
// at offsets that an index recorded. Every record is verified before it is
// handed out: the caller gets the chunk that was written or an exception,
// never wrong bytes.
//
// The file's generation is read with the first record and kept in the
// SharedChunkFile, so that a kept file reads a record with one system call,
// whichever of its readers read the header. Recycling rewrites the
// header in place with a new generation: a record of another generation than
// the kept one makes the reader read the header again before it judges the
// record. A record of the kept generation is taken without looking at the
// header, so a caller keeping a reader across the recycling of its file must
// only ask for records it knows the file's current content holds (an index
// entry of a written chunk); the time point and size it expects are checked.
//
// Shares its file (and the descriptor) with other readers, on any thread.
// Not thread-safe itself (reused buffers).
class DataChunkFileReader {
  public:
    // Opens `fileName` read-only. Throws std::runtime_error
    // "Cannot open chunk file <name>: <strerror>".
    explicit DataChunkFileReader(const std::string& fileName);
    // Reads `file`, opened and possibly read by other readers already.
    explicit DataChunkFileReader(std::shared_ptr<SharedChunkFile> file);
    DataChunkFileReader(const DataChunkFileReader&) = delete;
    DataChunkFileReader& operator=(const DataChunkFileReader&) = delete;

    // Reads the record at `offset` into `out`: time point, duration, payload
    // and the properties whose key is in `keys` (others are dropped). Throws
    // std::runtime_error naming the file, the offset and what did not match
    // (magic, sizes, generation, checksum) or the I/O error; `out`'s payload
    // and properties are then unspecified.
    void GetChunk(Moreld::Plexa::DataChunk& out, uint64_t offset,
                  const std::set<std::string>& keys);
    // The same, and also throws unless the record is the chunk the caller's
    // index names: `expectedTimePoint` and `expectedSizeOnFile` (the record's
    // whole size, DataChunk::GetSizeOnFile()).
    void GetChunk(Moreld::Plexa::DataChunk& out, uint64_t offset, const std::set<std::string>& keys,
                  Moreld::Time::TimePoint expectedTimePoint, uint64_t expectedSizeOnFile);

    const std::string& GetFilename() const { return file_->GetFileName(); }

  private:
    struct Expectation {
        Moreld::Time::TimePoint timePoint;
        uint64_t sizeOnFile;
    };

    // Steps of a read; each throws through Fail.
    void Read(Moreld::Plexa::DataChunk& out, uint64_t offset, const std::set<std::string>& keys,
              const Expectation* expected);
    // The shared file's known generation, read from the header if none is.
    uint64_t FileGeneration(uint64_t offset);
    // Reads the header and shares its generation.
    uint64_t ReadFileGeneration(uint64_t offset);
    // Reads the header again when a record of `recordGeneration` disagrees
    // with the kept one (the file was recycled since); the current generation.
    uint64_t Revalidate(uint64_t offset, uint64_t keptGeneration, uint64_t recordGeneration);
    // Reads the header into `raw`, and with it the whole record when
    // `guessedSize` (0: unknown) and the guessed property block size are
    // right: `bodyRead` then tells that properties_ and `payload` are filled.
    ChunkRecordHeader ReadHeader(uint64_t offset, uint64_t guessedSize,
                                 char (&raw)[ChunkRecordHeader::kSize], std::string& payload,
                                 bool& bodyRead);
    void CheckExpectation(uint64_t offset, const ChunkRecordHeader& header,
                          const Expectation& expected) const;
    void ReadBody(uint64_t offset, const ChunkRecordHeader& header, std::string& payload);
    void VerifyChecksum(uint64_t offset, const ChunkRecordHeader& header, const char* rawHeader,
                        const std::string& payload) const;

    [[noreturn]] void Fail(uint64_t offset, const std::string& what) const;

    const std::shared_ptr<SharedChunkFile> file_;
    const uint64_t fileSize_;
    std::string properties_;  // property block of the last record, reused
    // Layout of the last record read, the guess for the next one.
    uint32_t propertiesSizeGuess_;
    uint64_t recordSizeGuess_ = 0;
};

}  // namespace Moreld::File
