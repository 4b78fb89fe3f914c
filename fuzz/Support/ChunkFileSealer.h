#pragma once

#include <string>

namespace loopstore::fuzz {

// Makes fuzzed bytes pass the checks a fuzzer cannot guess, so that it gets
// past them to what they guard: the check of a file header whose magic is
// right, and the checksum of each record that the header checks would let
// through (magic, generation, sizes within the file), from offset 16 on. What
// is not a header or a record is left as it is.
//
// Stateless; works on the caller's copy of the file.
class ChunkFileSealer {
  public:
    ChunkFileSealer() = delete;

    static void Seal(std::string& file);
};

}  // namespace loopstore::fuzz
