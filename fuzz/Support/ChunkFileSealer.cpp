#include "fuzz/Support/ChunkFileSealer.h"

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/ChunkRecordChecksum.h"
#include "Platform/File/ChunkRecordHeader.h"
#include "Platform/File/Coding.h"

namespace loopstore::fuzz {

using Moreld::File::ChunkFileHeader;
using Moreld::File::ChunkRecordChecksum;
using Moreld::File::ChunkRecordHeader;

namespace {

// Rewrites the header's check when its magic is right; returns its generation.
uint64_t SealHeader(std::string& file) {
    if (file.size() < ChunkFileHeader::kSize)
        return 0;
    const uint64_t generation = Moreld::File::Coding::DecodeFixed64(file.data() + 4);
    std::string sealed(ChunkFileHeader::kSize, '\0');
    ChunkFileHeader(generation).EncodeTo(sealed.data());
    if (file.compare(0, 4, sealed, 0, 4) == 0)
        file.replace(0, sealed.size(), sealed);
    return generation;
}

}  // namespace

void ChunkFileSealer::Seal(std::string& file) {
    const uint64_t generation = SealHeader(file);
    uint64_t offset = ChunkFileHeader::kFirstRecordOffset;
    while (offset + ChunkRecordHeader::kSize <= file.size()) {
        char* at = file.data() + offset;
        ChunkRecordHeader header = ChunkRecordHeader::Decode(at);
        if (!header.Check(offset, generation, file.size()).empty())
            return;
        ChunkRecordChecksum checksum;
        checksum.Update(at, ChunkRecordHeader::kChecksumOffset);
        checksum.Update(at + ChunkRecordHeader::kSize,
                        header.RecordSize() - ChunkRecordHeader::kSize);
        header.checksum = checksum.Digest();
        header.EncodeTo(at);
        offset += header.RecordSize();
    }
}

}  // namespace loopstore::fuzz
