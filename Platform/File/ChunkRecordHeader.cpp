#include "Platform/File/ChunkRecordHeader.h"

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/Coding.h"

namespace Moreld::File {

namespace {

constexpr uint32_t kMagic = Coding::MagicOf("LSCR");

}  // namespace

ChunkRecordHeader ChunkRecordHeader::ForGeneration(uint64_t generation) {
    ChunkRecordHeader header;
    header.magic = kMagic;
    header.generation = generation;
    return header;
}

ChunkRecordHeader ChunkRecordHeader::Decode(const char* src) {
    ChunkRecordHeader header;
    header.magic = Coding::DecodeFixed32(src);
    header.propertiesSize = Coding::DecodeFixed32(src + 4);
    header.payloadSize = Coding::DecodeFixed64(src + 8);
    header.generation = Coding::DecodeFixed64(src + 16);
    header.timePointNs = static_cast<int64_t>(Coding::DecodeFixed64(src + 24));
    header.durationNs = static_cast<int64_t>(Coding::DecodeFixed64(src + 32));
    header.checksum = Coding::DecodeFixed64(src + kChecksumOffset);
    return header;
}

void ChunkRecordHeader::EncodeTo(char* dst) const {
    Coding::EncodeFixed32(dst, magic);
    Coding::EncodeFixed32(dst + 4, propertiesSize);
    Coding::EncodeFixed64(dst + 8, payloadSize);
    Coding::EncodeFixed64(dst + 16, generation);
    Coding::EncodeFixed64(dst + 24, static_cast<uint64_t>(timePointNs));
    Coding::EncodeFixed64(dst + 32, static_cast<uint64_t>(durationNs));
    Coding::EncodeFixed64(dst + kChecksumOffset, checksum);
}

std::string ChunkRecordHeader::Check(uint64_t offset, uint64_t fileGeneration,
                                     uint64_t limit) const {
    if (offset < ChunkFileHeader::kFirstRecordOffset) {
        return "offset lies inside the file header";
    }
    if (magic != kMagic) {
        return "no record magic";
    }
    if (generation != fileGeneration) {
        return "generation " + std::to_string(generation) + " is not the file's generation " +
               std::to_string(fileGeneration);
    }
    if (propertiesSize < kMinPropertiesSize) {
        return "property block of " + std::to_string(propertiesSize) + " bytes is too short";
    }
    // Compared by subtraction so that garbage sizes cannot overflow.
    if (offset > limit || limit - offset < kSize || limit - offset - kSize < propertiesSize ||
        limit - offset - kSize - propertiesSize < payloadSize) {
        return "record of " + std::to_string(propertiesSize) + " property bytes and " +
               std::to_string(payloadSize) + " payload bytes runs past the end at " +
               std::to_string(limit);
    }
    return {};
}

}  // namespace Moreld::File
