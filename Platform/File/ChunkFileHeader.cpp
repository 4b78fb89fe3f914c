#include "Platform/File/ChunkFileHeader.h"

#include <xxhash.h>

#include <random>

#include "Platform/File/Coding.h"

namespace Moreld::File {

namespace {

constexpr uint32_t kMagic = Coding::MagicOf("LSCF");
constexpr size_t kCheckedBytes = 12;  // magic and generation

uint64_t RandomNonZero() {
    std::random_device device;
    uint64_t value = 0;
    while (value == 0) {
        value = static_cast<uint64_t>(device()) << 32 | device();
    }
    return value;
}

}  // namespace

uint32_t ChunkFileHeader::CheckOf(const char* src) {
    return static_cast<uint32_t>(XXH3_64bits(src, kCheckedBytes));
}

ChunkFileHeader ChunkFileHeader::Decode(const char* src, uint64_t available) {
    if (available < kSize || Coding::DecodeFixed32(src) != kMagic ||
        Coding::DecodeFixed32(src + 12) != CheckOf(src)) {
        return ChunkFileHeader();
    }
    return ChunkFileHeader(Coding::DecodeFixed64(src + 4));
}

void ChunkFileHeader::EncodeTo(char* dst) const {
    Coding::EncodeFixed32(dst, kMagic);
    Coding::EncodeFixed64(dst + 4, generation_);
    Coding::EncodeFixed32(dst + 12, CheckOf(dst));
}

ChunkFileHeader ChunkFileHeader::Next() const {
    if (!valid_) {
        return ChunkFileHeader(RandomNonZero());
    }
    // 0 is avoided on wrap-around only to keep "0" meaning "no generation" in
    // GetGeneration().
    uint64_t next = generation_ + 1;
    return ChunkFileHeader(next == 0 ? 1 : next);
}

}  // namespace Moreld::File
