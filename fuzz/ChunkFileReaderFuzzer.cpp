// Reads a fuzzed chunk file the way a track reader does: record after record
// from offset 16, each a second time with the expectation an index would hold,
// and once at an arbitrary offset. A record is either handed out whole and in
// agreement with its header, or refused with std::runtime_error; any other
// exception, failed check or sanitizer report is a finding. Also checks that
// a file header that decodes encodes back to the same bytes.

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/ChunkRecordHeader.h"
#include "Platform/File/DataChunkFileReader.h"
#include "Platform/Plexa/DataChunk.h"
#include "fuzz/Support/ChunkFileInput.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/MemoryFile.h"

namespace {

using Moreld::File::ChunkFileHeader;
using Moreld::File::ChunkRecordHeader;
using Moreld::File::DataChunkFileReader;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;

const std::set<std::string> kKeys = {"", "a", "tav-chunk-number"};

void CheckFileHeader(const std::string& file) {
    const ChunkFileHeader header = ChunkFileHeader::Decode(file.data(), file.size());
    if (!header.IsValid())
        return;
    std::string again(ChunkFileHeader::kSize, '\0');
    header.EncodeTo(again.data());
    FUZZ_CHECK(file.compare(0, again.size(), again) == 0);
}

// The chunk must be what the record header at `offset` says.
void CheckAgainstHeader(const std::string& file, uint64_t offset, const DataChunk& chunk) {
    FUZZ_CHECK(offset + ChunkRecordHeader::kSize <= file.size());
    const ChunkRecordHeader header = ChunkRecordHeader::Decode(file.data() + offset);
    FUZZ_CHECK(offset + header.RecordSize() <= file.size());
    FUZZ_CHECK(chunk.GetDataSize() == header.payloadSize);
    FUZZ_CHECK(chunk.GetTimePoint().ToNanoseconds() == header.timePointNs);
    FUZZ_CHECK(chunk.GetDuration().ToNanoseconds() == header.durationNs);
    FUZZ_CHECK(file.compare(offset + header.RecordSize() - header.payloadSize, header.payloadSize,
                            chunk.GetData()) == 0);
    for (const auto& [key, value] : chunk.GetProperties())
        FUZZ_CHECK(kKeys.count(key) == 1);
}

// Reads the record at `offset` twice, the second time as an index would ask
// for it; returns its size, or 0 when the reader refuses it.
uint64_t ReadRecord(DataChunkFileReader& reader, const std::string& file, uint64_t offset) {
    DataChunk chunk;
    try {
        reader.GetChunk(chunk, offset, kKeys);
    } catch (const std::runtime_error&) {
        return 0;
    }
    CheckAgainstHeader(file, offset, chunk);
    const uint64_t size = ChunkRecordHeader::Decode(file.data() + offset).RecordSize();
    DataChunk again;
    reader.GetChunk(again, offset, kKeys, chunk.GetTimePoint(), size);
    FUZZ_CHECK(again == chunk);
    return size;
}

void Probe(DataChunkFileReader& reader, const std::string& file, uint64_t offset) {
    DataChunk chunk;
    try {
        reader.GetChunk(chunk, offset, kKeys);
    } catch (const std::runtime_error&) {
        return;
    }
    CheckAgainstHeader(file, offset, chunk);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static loopstore::fuzz::MemoryFile memory;
    const auto input = loopstore::fuzz::ChunkFileInput::Decode(data, size);
    CheckFileHeader(input.file);
    memory.Write(input.file);
    DataChunkFileReader reader(memory.Path());
    uint64_t offset = ChunkFileHeader::kFirstRecordOffset;
    while (const uint64_t size = ReadRecord(reader, input.file, offset))
        offset += size;
    Probe(reader, input.file, input.value % (input.file.size() + 64));
    return 0;
}
