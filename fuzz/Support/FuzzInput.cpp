#include "fuzz/Support/FuzzInput.h"

namespace loopstore::fuzz {

uint8_t FuzzInput::Byte() {
    if (rest_.empty())
        return 0;
    const auto value = static_cast<uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return value;
}

uint64_t FuzzInput::U64() {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i)
        value |= static_cast<uint64_t>(Byte()) << (8 * i);
    return value;
}

std::string_view FuzzInput::Take(size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return taken;
}

std::string_view FuzzInput::Line() {
    const size_t end = rest_.find('\n');
    const std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    return line;
}

std::string_view FuzzInput::Rest() {
    const std::string_view rest = rest_;
    rest_ = {};
    return rest;
}

void AppendU64(std::string& dst, uint64_t value) {
    for (int i = 0; i < 8; ++i)
        dst.push_back(static_cast<char>(value >> (8 * i)));
}

}  // namespace loopstore::fuzz
