#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace loopstore::media {

// The program clock reference (PCR) of one 188-byte MPEG-TS packet: the
// encoder's 27 MHz clock, by which the chunker stamps chunks and against
// which the stream's timestamps (90 kHz, the PCR's base) are shown. A value
// type.
struct ProgramClock {
    int pid = 0;
    uint64_t base = 0;       // 90 kHz, 33 bits
    uint64_t extension = 0;  // 27 MHz remainder, 0..299

    // The PCR carried by `packet` (at least 12 bytes from its sync byte),
    // if any.
    static std::optional<ProgramClock> Of(std::string_view packet);
    int64_t Nanoseconds() const {
        return static_cast<int64_t>((base * 300 + extension) * 1000 / 27);
    }
};

}  // namespace loopstore::media
