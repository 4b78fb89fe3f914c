#pragma once

#include <cstdint>

namespace Moreld::File {

// The 16-byte header at offset 0 of every chunk file: a magic, the file's
// current generation and a check over both (see doc/chunk_file_format.md).
// Only records stamped with the header's generation belong to the file, so
// rewriting the header with a new generation discards every older record at
// once without touching them.
//
// A plain value; not synchronised.
class ChunkFileHeader {
  public:
    static constexpr uint64_t kSize = 16;
    // Offset of the first record.
    static constexpr uint64_t kFirstRecordOffset = kSize;

    // A header that does not check: the file has no current generation.
    ChunkFileHeader() = default;
    explicit ChunkFileHeader(uint64_t generation) : valid_(true), generation_(generation) {}

    // Reads the kSize bytes at `src`. `available` bytes may be fewer (a file
    // shorter than a header): the result is then invalid.
    static ChunkFileHeader Decode(const char* src, uint64_t available);
    // Writes kSize bytes of this (valid) header to `dst`.
    void EncodeTo(char* dst) const;

    // True when the bytes checked, i.e. the file has a current generation.
    bool IsValid() const { return valid_; }
    // The current generation; 0 when !IsValid().
    uint64_t GetGeneration() const { return valid_ ? generation_ : 0; }

    // The header of the generation that follows this one: generation + 1 when
    // valid, else a random non-zero value, so that a damaged header cannot
    // make old records valid again except by a 1 in 2^64 chance.
    ChunkFileHeader Next() const;

  private:
    static uint32_t CheckOf(const char* src);

    bool valid_ = false;
    uint64_t generation_ = 0;
};

}  // namespace Moreld::File
