#pragma once

#include <concepts>
#include <limits>
#include <ranges>
#include <string>

namespace Moreld::Tools {

// Formats ascending integers compactly for log lines: runs of consecutive
// values as "first-last", other values alone, separated by ",".
//   {1, 2, 3, 7, 9, 10} -> "1-3,7,9-10"      {} -> ""      {-3, -2} -> "-3--2"
// Repeated values count once. Precondition: `values` is sorted ascending
// (a std::set always is); unsorted input is printed without crashing, but a
// descending step simply starts a new run.
template <std::ranges::input_range Range>
requires std::integral<std::ranges::range_value_t<Range>> std::string PrintIntegers(
    const Range& values) {
    using Value = std::ranges::range_value_t<Range>;
    std::string text;
    bool open = false;
    Value first{};
    Value last{};
    auto closeRun = [&] {
        if (!text.empty()) {
            text += ',';
        }
        text += std::to_string(first);
        if (last != first) {
            text += '-';
            text += std::to_string(last);
        }
    };
    for (const Value value : values) {
        if (open && value == last) {
            continue;
        }
        // Written so that the greatest value of the type does not overflow.
        if (open && last != std::numeric_limits<Value>::max() && value == last + 1) {
            last = value;
            continue;
        }
        if (open) {
            closeRun();
        }
        first = last = value;
        open = true;
    }
    if (open) {
        closeRun();
    }
    return text;
}

}  // namespace Moreld::Tools
