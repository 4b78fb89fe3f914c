// Parses fuzzed text as an ISO-8601 time point (TimePoint::FromString), which
// may only refuse it with std::invalid_argument; what it accepts prints and
// parses back to the same instant. The first 8 bytes, taken as a nanosecond
// count, must print and parse back too, whatever their value.

#include <cstdint>
#include <stdexcept>
#include <string>

#include "Platform/Time/TimePoint.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/FuzzInput.h"

namespace {

using Moreld::Time::TimePoint;

void CheckPrintsAndParsesBack(TimePoint tp) {
    FUZZ_CHECK(TimePoint::FromString(tp.ToString()) == tp);
    FUZZ_CHECK(!tp.ToDurationString().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    loopstore::fuzz::FuzzInput nanoseconds(data, size);
    CheckPrintsAndParsesBack(TimePoint::FromNanoseconds(static_cast<int64_t>(nanoseconds.U64())));

    const std::string text(reinterpret_cast<const char*>(data), size);
    TimePoint tp;
    try {
        tp = TimePoint::FromString(text);
    } catch (const std::invalid_argument&) {
        return 0;
    }
    CheckPrintsAndParsesBack(tp);
    return 0;
}
