#pragma once

#include <cstdint>
#include <cstring>

// Little-endian fixed-width integers of the chunk file format. memcpy keeps the
// accesses well defined at any alignment; compilers turn it into one move.
namespace Moreld::File::Coding {

inline void EncodeFixed32(char* dst, uint32_t value) {
    unsigned char bytes[4];
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
    std::memcpy(dst, bytes, sizeof(bytes));
}

inline void EncodeFixed64(char* dst, uint64_t value) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
    std::memcpy(dst, bytes, sizeof(bytes));
}

inline uint32_t DecodeFixed32(const char* src) {
    unsigned char bytes[4];
    std::memcpy(bytes, src, sizeof(bytes));
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    }
    return value;
}

inline uint64_t DecodeFixed64(const char* src) {
    unsigned char bytes[8];
    std::memcpy(bytes, src, sizeof(bytes));
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    }
    return value;
}

// The u32 whose little-endian bytes spell `tag`, so that magics read as text
// in a hex dump.
constexpr uint32_t MagicOf(const char (&tag)[5]) {
    return static_cast<uint32_t>(static_cast<unsigned char>(tag[0])) |
           static_cast<uint32_t>(static_cast<unsigned char>(tag[1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(tag[2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(tag[3])) << 24;
}

}  // namespace Moreld::File::Coding
