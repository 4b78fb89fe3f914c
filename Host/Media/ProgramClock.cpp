#include "Host/Media/ProgramClock.h"

namespace loopstore::media {

namespace {

uint8_t Byte(std::string_view s, size_t i) {
    return static_cast<uint8_t>(s[i]);
}

}  // namespace

std::optional<ProgramClock> ProgramClock::Of(std::string_view p) {
    if (p.size() < 12)
        return std::nullopt;
    const bool hasAdaptation = (Byte(p, 3) & 0x20) != 0;
    if (!hasAdaptation || Byte(p, 4) < 7 || (Byte(p, 5) & 0x10) == 0)
        return std::nullopt;
    ProgramClock pcr;
    pcr.pid = ((Byte(p, 1) & 0x1f) << 8) | Byte(p, 2);
    pcr.base = (uint64_t{Byte(p, 6)} << 25) | (uint64_t{Byte(p, 7)} << 17) |
               (uint64_t{Byte(p, 8)} << 9) | (uint64_t{Byte(p, 9)} << 1) | (Byte(p, 10) >> 7);
    pcr.extension = ((uint64_t{Byte(p, 10)} & 1) << 8) | Byte(p, 11);
    return pcr;
}

}  // namespace loopstore::media
