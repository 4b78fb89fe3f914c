#pragma once

#include <cstdint>
#include <string>

namespace Moreld::File {

// The fixed 48-byte head of one record of a chunk file (layout in
// doc/chunk_file_format.md). A plain value; not synchronised.
struct ChunkRecordHeader {
    static constexpr uint64_t kSize = 48;
    // The checksum covers the header bytes before it.
    static constexpr uint64_t kChecksumOffset = 40;
    static constexpr uint64_t kMinPropertiesSize = 4;  // the property count

    uint32_t magic = 0;
    uint32_t propertiesSize = 0;
    uint64_t payloadSize = 0;
    uint64_t generation = 0;
    int64_t timePointNs = 0;
    int64_t durationNs = 0;
    uint64_t checksum = 0;

    // A header for a record of `generation`, with the record magic and no
    // checksum yet.
    static ChunkRecordHeader ForGeneration(uint64_t generation);
    // Reads kSize bytes at `src`; no check is made.
    static ChunkRecordHeader Decode(const char* src);
    // Writes kSize bytes to `dst`.
    void EncodeTo(char* dst) const;

    // Bytes the whole record takes: header, property block and payload. Only
    // meaningful once Check() accepted the sizes (it cannot overflow then).
    uint64_t RecordSize() const { return kSize + propertiesSize + payloadSize; }

    // Checks what the header alone can tell about a record at `offset` of a
    // file of `generation` whose records must end by `limit`: magic, sizes,
    // generation. Returns "" when it holds, else what is wrong.
    std::string Check(uint64_t offset, uint64_t generation, uint64_t limit) const;
};

}  // namespace Moreld::File
