#pragma once

#include <cstddef>
#include <string_view>

#include "Platform/Protocol/Protocol.pb.h"

// What the store accepts as track properties: UTF-8 keys of at most 1 KiB,
// UTF-8 values of at most 64 KiB, and at most 16 MiB of them per track, so
// that a track's properties always fit one answer of the host's protocol.
//
// Stateless; safe from any thread.
class TrackPropertyLimits {
  public:
    static constexpr size_t kMaxKeyBytes = 1024;
    static constexpr size_t kMaxValueBytes = 64 * 1024;
    static constexpr size_t kMaxTrackBytes = 16 * 1024 * 1024;

    // Throws std::runtime_error, naming the track and, when it is fit to
    // print, the property, at the first property that breaks a limit.
    static void Check(long track, const Protocol::PropertyList& properties);
    // Throws std::runtime_error when a track's properties would take `bytes`
    // (keys and values) in all, more than kMaxTrackBytes.
    static void CheckTrackTotal(long track, size_t bytes);
    static bool IsUtf8(std::string_view text);
};
