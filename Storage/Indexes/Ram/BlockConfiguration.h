#pragma once

#include <string>

// How much one block (one chunk file) may hold: at most maxSize bytes of chunk
// data (0: no byte limit) and at most maxChunk chunks (0: no count limit).
// Invariant: the two are never both 0. Text form "<maxSize>_<maxChunk>", for
// example "0_1" (one chunk per file, any size) or "104857600_0".
//
// A small copyable value; no thread-safety of its own.
class BlockConfiguration {
  public:
    // Throws std::runtime_error when both are 0.
    BlockConfiguration(unsigned long maxSize, unsigned long maxChunk);
    // Same as FromString(text).
    explicit BlockConfiguration(const std::string& text);
    BlockConfiguration(const BlockConfiguration&) = default;
    BlockConfiguration& operator=(const BlockConfiguration&) = default;
    virtual ~BlockConfiguration() = default;

    // Throws std::runtime_error when both are 0, leaving this unchanged.
    void Set(unsigned long maxSize, unsigned long maxChunk);

    unsigned long GetMaxSize() const { return maxSize_; }
    unsigned long GetMaxChunk() const { return maxChunk_; }

    bool IsEqual(const BlockConfiguration& other) const;
    // Both limits 0; the constructors forbid it, the check stays for safety.
    bool IsUnlimited() const { return maxSize_ == 0 && maxChunk_ == 0; }
    // Exactly 0_1: a byte limit with one chunk per file does not count.
    bool OneChunkPerFile() const { return maxSize_ == 0 && maxChunk_ == 1; }

    std::string ToString() const;

    // Parses "<maxSize>_<maxChunk>"; each part is read as std::stoll does
    // (blanks skipped, trailing text ignored) and taken as unsigned. Throws
    // std::runtime_error without '_', with a part holding no number, and for
    // 0_0; std::out_of_range for a number beyond the signed 64-bit range.
    static BlockConfiguration FromString(const std::string& text);

  private:
    static void CheckLimits(unsigned long maxSize, unsigned long maxChunk);

    unsigned long maxSize_;
    unsigned long maxChunk_;
};
