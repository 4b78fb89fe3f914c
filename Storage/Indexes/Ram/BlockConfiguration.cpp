#include "Storage/Indexes/Ram/BlockConfiguration.h"

#include <stdexcept>

BlockConfiguration::BlockConfiguration(unsigned long maxSize, unsigned long maxChunk)
    : maxSize_(maxSize), maxChunk_(maxChunk) {
    CheckLimits(maxSize, maxChunk);
}

BlockConfiguration::BlockConfiguration(const std::string& text)
    : BlockConfiguration(FromString(text)) {}

void BlockConfiguration::Set(unsigned long maxSize, unsigned long maxChunk) {
    CheckLimits(maxSize, maxChunk);
    maxSize_ = maxSize;
    maxChunk_ = maxChunk;
}

bool BlockConfiguration::IsEqual(const BlockConfiguration& other) const {
    return maxSize_ == other.maxSize_ && maxChunk_ == other.maxChunk_;
}

std::string BlockConfiguration::ToString() const {
    return std::to_string(maxSize_) + "_" + std::to_string(maxChunk_);
}

BlockConfiguration BlockConfiguration::FromString(const std::string& text) {
    const std::string::size_type separator = text.find('_');
    if (separator == std::string::npos) {
        throw std::runtime_error("Could not find '_' in string " + text);
    }
    long long maxSize = 0;
    long long maxChunk = 0;
    try {
        maxSize = std::stoll(text.substr(0, separator));
        maxChunk = std::stoll(text.substr(separator + 1));
    } catch (const std::invalid_argument&) {
        // std::out_of_range is left to the caller on purpose.
        throw std::runtime_error("string doesn't have format <integer>_<integer>: " + text);
    }
    // A negative limit wraps to a huge one, i.e. practically no limit.
    return BlockConfiguration(static_cast<unsigned long>(maxSize),
                              static_cast<unsigned long>(maxChunk));
}

void BlockConfiguration::CheckLimits(unsigned long maxSize, unsigned long maxChunk) {
    if (maxSize == 0 && maxChunk == 0) {
        throw std::runtime_error("maxSize and maxChunk cannot be both equal to 0");
    }
}
