#pragma once

#include <set>
#include <string>

#include "Platform/Plexa/DataChunk.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Time/TimePoint.h"

namespace Moreld::Plexa {

// Conversions between the storage's in-memory types (Time::TimePoint,
// DataChunk) and the host's protocol messages. Static functions only; they
// touch nothing but their arguments, so they are thread-safe as long as the
// caller does not share an argument with another thread.
class Converter {
  public:
    Converter() = delete;

    // A message without a value converts to the 0 ns time point.
    static Time::TimePoint From(const Protocol::TimePoint& timePoint);
    static Protocol::TimePoint To(const Time::TimePoint& timePoint);

    // Replaces the content of `out` by a copy of `chunk`: time point,
    // duration, payload, and of the properties only those whose key is in
    // `keys` (none when `keys` is empty), in key order. `chunk` is unchanged.
    static void Fill(const DataChunk& chunk, Protocol::Chunk& out,
                     const std::set<std::string>& keys);

    // Exchanges the whole content of the two: time point, duration, payload
    // and properties. Payload and property strings are moved, never copied,
    // so a large payload keeps its buffer. Should the message name a key
    // twice, the chunk keeps the last value.
    static void Swap(DataChunk& chunk, Protocol::Chunk& message);
};

}  // namespace Moreld::Plexa
