// Parses fuzzed text as a block configuration "<maxSize>_<maxChunk>". It may
// only refuse with std::runtime_error, or std::out_of_range for a number
// beyond 64 bits; what it accepts never has both limits 0, and prints and
// parses back the same while both limits are within the signed range the
// text form reads.

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include "Storage/Indexes/Ram/BlockConfiguration.h"
#include "fuzz/Support/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const BlockConfiguration configuration = BlockConfiguration::FromString(text);
        FUZZ_CHECK(!configuration.IsUnlimited());
        FUZZ_CHECK(BlockConfiguration(text).IsEqual(configuration));
        constexpr auto kLargest = static_cast<unsigned long>(std::numeric_limits<int64_t>::max());
        if (configuration.GetMaxSize() <= kLargest && configuration.GetMaxChunk() <= kLargest)
            FUZZ_CHECK(
                BlockConfiguration::FromString(configuration.ToString()).IsEqual(configuration));
    } catch (const std::runtime_error&) {
    } catch (const std::out_of_range&) {
    }
    return 0;
}
