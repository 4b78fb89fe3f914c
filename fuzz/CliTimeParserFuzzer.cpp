// Feeds fuzzed text to the command line's time parsers. Byte 0 picks the
// parser (instant, duration, signed duration, range), bytes 1-8 are "now" in
// nanoseconds, the rest is the text (a range: "from\nto"). A parser may only
// refuse with CliError, and what it returns must keep its promise.

#include <cstdint>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/TimeParser.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/FuzzInput.h"

namespace {

using loopstore::cli::CliError;
using loopstore::cli::TimeParser;
using Moreld::Time::TimePoint;

void Parse(uint8_t parser, TimePoint now, loopstore::fuzz::FuzzInput& in) {
    switch (parser % 4) {
        case 0:
            TimeParser::ParseInstant(std::string(in.Rest()), now);
            break;
        case 1:
            FUZZ_CHECK(TimeParser::ParseDuration(std::string(in.Rest())) > TimePoint());
            break;
        case 2:
            TimeParser::ParseSignedDuration(std::string(in.Rest()));
            break;
        default: {
            const std::string from(in.Line());
            const auto range = TimeParser::ParseRange(from, std::string(in.Rest()), now);
            int64_t length = 0;
            FUZZ_CHECK(range.from < range.to);
            FUZZ_CHECK(!__builtin_sub_overflow(range.to.ToNanoseconds(), range.from.ToNanoseconds(),
                                               &length));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    loopstore::fuzz::FuzzInput in(data, size);
    const uint8_t parser = in.Byte();
    const TimePoint now = TimePoint::FromNanoseconds(static_cast<int64_t>(in.U64()));
    try {
        Parse(parser, now, in);
    } catch (const CliError&) {
    }
    return 0;
}
