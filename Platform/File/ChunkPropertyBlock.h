#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "Platform/Plexa/DataChunk.h"

namespace Moreld::File {

// Codec of the property block of a record: u32 count, then per property u32
// key size, u32 value size, key bytes, value bytes, in key order.
// Stateless.
class ChunkPropertyBlock {
  public:
    using Properties = Moreld::Plexa::DataChunk::Properties;

    // Bytes the block of `properties` takes. Throws std::length_error when it
    // does not fit the format's 32-bit sizes.
    static uint64_t EncodedSize(const Properties& properties);
    // Appends the block to `dst`.
    static void AppendTo(const Properties& properties, std::string& dst);

    // Checks that `block` is exactly one well-formed block and, when `out` is
    // not null, replaces its content by the properties whose key is in
    // `wanted`. Returns "" on success, else what is wrong (`out` is then left
    // partly filled).
    static std::string Parse(std::string_view block, const std::set<std::string>& wanted,
                             Properties* out);
};

}  // namespace Moreld::File
