#include "fuzz/Support/ChunkFileInput.h"

#include "fuzz/Support/ChunkFileSealer.h"
#include "fuzz/Support/FuzzInput.h"

namespace loopstore::fuzz {

ChunkFileInput ChunkFileInput::Decode(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    ChunkFileInput input;
    input.mode = in.Byte();
    input.value = in.U64();
    input.file = std::string(in.Rest());
    if ((input.mode & kSeal) != 0)
        ChunkFileSealer::Seal(input.file);
    return input;
}

std::string ChunkFileInput::Encode() const {
    std::string bytes(1, static_cast<char>(mode));
    AppendU64(bytes, value);
    return bytes + file;
}

}  // namespace loopstore::fuzz
