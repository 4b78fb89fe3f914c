#include "Host/Cli/SyntheticPayload.h"

#include <cstring>

namespace loopstore::cli {

namespace {

// splitmix64: cheap, and every seed gives a different sequence.
uint64_t NextRandom(uint64_t& state) {
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

}  // namespace

std::string SyntheticPayload::Make(int64_t trackId, Moreld::Time::TimePoint timePoint,
                                   uint64_t size) {
    uint64_t state = static_cast<uint64_t>(timePoint.ToNanoseconds()) ^
                     (static_cast<uint64_t>(trackId) * 0xd6e8feb86659fd93ULL);
    std::string out(size, '\0');
    for (uint64_t at = 0; at < size; at += 8) {
        const uint64_t word = NextRandom(state);
        std::memcpy(out.data() + at, &word, std::min<uint64_t>(8, size - at));
    }
    return out;
}

}  // namespace loopstore::cli
