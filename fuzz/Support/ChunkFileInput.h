#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace loopstore::fuzz {

// The input of the chunk file targets: a mode byte, a 64-bit value the target
// uses as it likes (an offset, a limit), then the file's bytes.
struct ChunkFileInput {
    // Mode bit: recompute the header check and record checksums before the
    // file is read (ChunkFileSealer), so that mutations reach what the
    // checksums guard.
    static constexpr uint8_t kSeal = 1;

    uint8_t mode = 0;
    uint64_t value = 0;
    std::string file;

    static ChunkFileInput Decode(const uint8_t* data, size_t size);
    std::string Encode() const;
};

}  // namespace loopstore::fuzz
