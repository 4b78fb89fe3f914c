// Parses fuzzed bytes as the property block of a chunk record. The verdict
// must not depend on which keys are wanted, a block that parses keeps its
// properties within its own size, and what it yields encodes to a block that
// parses back to the same properties. Parse reports problems as text: any
// exception is a finding.

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "Platform/File/ChunkPropertyBlock.h"
#include "fuzz/Support/FuzzCheck.h"

namespace {

using Moreld::File::ChunkPropertyBlock;

const std::set<std::string> kWanted = {"", "a", "tav-chunk-number", "tav-accumulated-duration"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view block(reinterpret_cast<const char*>(data), size);
    ChunkPropertyBlock::Properties properties;
    const std::string error = ChunkPropertyBlock::Parse(block, kWanted, &properties);
    FUZZ_CHECK(ChunkPropertyBlock::Parse(block, {}, nullptr) == error);
    if (!error.empty())
        return 0;
    for (const auto& [key, value] : properties)
        FUZZ_CHECK(kWanted.count(key) == 1);
    const uint64_t encodedSize = ChunkPropertyBlock::EncodedSize(properties);
    FUZZ_CHECK(encodedSize <= size);
    std::string encoded;
    ChunkPropertyBlock::AppendTo(properties, encoded);
    FUZZ_CHECK(encoded.size() == encodedSize);
    ChunkPropertyBlock::Properties again;
    FUZZ_CHECK(ChunkPropertyBlock::Parse(encoded, kWanted, &again).empty());
    FUZZ_CHECK(again == properties);
    return 0;
}
