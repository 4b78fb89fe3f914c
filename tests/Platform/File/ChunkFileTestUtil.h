#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Platform/Plexa/DataChunk.h"

namespace loopstore::test {

// A chunk at `seconds` lasting one second, with `payloadSize` bytes that
// depend on the time point (so records are told apart by content).
Moreld::Plexa::DataChunk MakeChunk(int64_t seconds, size_t payloadSize,
                                   const std::map<std::string, std::string>& properties = {});

std::string ReadWholeFile(const std::string& path);
// Overwrites bytes of an existing file in place (simulated damage).
void OverwriteAt(const std::string& path, uint64_t offset, const std::string& bytes);
// Inverts the byte at `offset`.
void FlipByteAt(const std::string& path, uint64_t offset);

// Offsets at which the chunks land one after the other from offset 16.
std::vector<uint64_t> OffsetsOf(const std::vector<Moreld::Plexa::DataChunk>& chunks);

}  // namespace loopstore::test
