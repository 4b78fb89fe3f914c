#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace loopstore::fuzz {

// Reads one libFuzzer input field by field: a target takes its fixed-size
// settings first (a mode byte, a clock value) and the rest is the text or the
// bytes under test. Reading past the end yields zeros, so that every input,
// even an empty one, is a valid input of every target.
//
// Borrows the input bytes. Not synchronised.
class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    uint8_t Byte();
    // Eight bytes, little-endian.
    uint64_t U64();
    // The next `count` bytes, or all that is left when there are fewer.
    std::string_view Take(size_t count);
    // The bytes up to the next '\n' (which is consumed), or all that is left.
    std::string_view Line();
    // Everything not read yet; the input is then used up.
    std::string_view Rest();

  private:
    std::string_view rest_;
};

// The writing side, for the seed generator: fields in the order a target
// reads them.
void AppendU64(std::string& dst, uint64_t value);

}  // namespace loopstore::fuzz
