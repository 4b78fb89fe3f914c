// Scans a fuzzed chunk file the way power-failure recovery does, and holds the
// scanner and the reader to the same verdict: every record the scan accepts
// reads back through DataChunkFileReader, the accepted records end exactly at
// the tail, and when the scan stopped on a bad record inside the file the
// reader refuses that record too. The scan limit is the file size, or a little
// less or more (`mode & 2`), as a file of another size than expected.

#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/ChunkRecordHeader.h"
#include "Platform/File/ChunkRecordScanner.h"
#include "Platform/File/Coding.h"
#include "Platform/File/DataChunkFileReader.h"
#include "Platform/File/PosixFile.h"
#include "fuzz/Support/ChunkFileInput.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/MemoryFile.h"

namespace {

using Moreld::File::ChunkFileHeader;
using Moreld::File::ChunkRecordHeader;
using Moreld::File::ChunkRecordScanner;
using Moreld::File::DataChunkFileReader;
using Moreld::Time::TimePoint;

constexpr uint8_t kOtherLimit = 2;

uint64_t Limit(const loopstore::fuzz::ChunkFileInput& input) {
    const uint64_t size = input.file.size();
    if ((input.mode & kOtherLimit) == 0)
        return size;
    const uint64_t delta = input.value % 128;
    return (input.value & (uint64_t{1} << 63)) != 0 ? size + delta : size - std::min(size, delta);
}

// Walks the accepted records with the reader, as the index would after a scan.
void ReadBackAcceptedRecords(const std::string& path, const std::string& file,
                             const ChunkRecordScanner& scanner, uint64_t limit) {
    DataChunkFileReader reader(path);
    std::set<TimePoint> timePoints;
    uint64_t count = 0;
    uint64_t offset = ChunkFileHeader::kFirstRecordOffset;
    while (offset < scanner.GetTail()) {
        Moreld::Plexa::DataChunk chunk;
        reader.GetChunk(chunk, offset, {});  // throws: a finding
        timePoints.insert(chunk.GetTimePoint());
        ++count;
        offset += ChunkRecordHeader::Decode(file.data() + offset).RecordSize();
    }
    FUZZ_CHECK(offset == scanner.GetTail());
    FUZZ_CHECK(count == scanner.GetRecordCount());
    FUZZ_CHECK(timePoints == scanner.GetTimePoints());
    if (scanner.GetStopReason().empty() || limit != file.size())
        return;
    bool refused = false;
    try {
        Moreld::Plexa::DataChunk chunk;
        reader.GetChunk(chunk, offset, {});
    } catch (const std::runtime_error&) {
        refused = true;
    }
    FUZZ_CHECK(refused);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static loopstore::fuzz::MemoryFile memory;
    const auto input = loopstore::fuzz::ChunkFileInput::Decode(data, size);
    memory.Write(input.file);
    const ChunkFileHeader header = ChunkFileHeader::Decode(input.file.data(), input.file.size());
    // Without a valid header, scan for the generation the bytes name anyway.
    const uint64_t generation = header.IsValid() || input.file.size() < 12
                                    ? header.GetGeneration()
                                    : Moreld::File::Coding::DecodeFixed64(input.file.data() + 4);
    const uint64_t limit = Limit(input);
    Moreld::File::PosixFile file(memory.Path(), O_RDONLY, "Cannot open");
    ChunkRecordScanner scanner(file, generation, limit);
    scanner.Scan();
    FUZZ_CHECK(scanner.GetTail() >= ChunkFileHeader::kFirstRecordOffset);
    FUZZ_CHECK(scanner.GetTail() <= std::max(limit, ChunkFileHeader::kFirstRecordOffset));
    FUZZ_CHECK(scanner.GetTimePoints().size() <= scanner.GetRecordCount());
    FUZZ_CHECK(!scanner.GetStopReason().empty() || scanner.GetTail() >= limit);
    if (header.IsValid())
        ReadBackAcceptedRecords(memory.Path(), input.file, scanner, limit);
    return 0;
}
