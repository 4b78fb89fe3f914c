// Feeds fuzzed text to the command line's size parsers. Byte 0 picks the
// parser (size, signed size, bit rate); the rest is the text. A parser may
// only refuse with CliError; a size fits a signed 64-bit integer and reads
// back the same from its decimal form; a bit rate is within 1 bit/s..1 Pbit/s.

#include <cstdint>
#include <limits>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/SizeParser.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/FuzzInput.h"

namespace {

using loopstore::cli::CliError;
using loopstore::cli::SizeParser;

void Parse(uint8_t parser, const std::string& text) {
    switch (parser % 3) {
        case 0: {
            const uint64_t size = SizeParser::ParseSize(text);
            FUZZ_CHECK(size <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()));
            FUZZ_CHECK(SizeParser::ParseSize(std::to_string(size)) == size);
            break;
        }
        case 1: {
            const int64_t change = SizeParser::ParseSignedSize(text);
            FUZZ_CHECK(SizeParser::ParseSignedSize(std::to_string(change)) == change);
            break;
        }
        default: {
            const uint64_t rate = SizeParser::ParseBitRate(text);
            FUZZ_CHECK(rate >= 1 && rate <= 1'000'000'000'000'000);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    loopstore::fuzz::FuzzInput in(data, size);
    const uint8_t parser = in.Byte();
    try {
        Parse(parser, std::string(in.Rest()));
    } catch (const CliError&) {
    }
    return 0;
}
