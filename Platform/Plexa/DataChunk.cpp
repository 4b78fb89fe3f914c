#include "Platform/Plexa/DataChunk.h"

namespace Moreld::Plexa {

DataChunk::DataChunk(Time::TimePoint timePoint, Time::TimePoint duration, std::string payload)
    : timePoint_(timePoint), duration_(duration), payload_(std::move(payload)) {}

void DataChunk::SetProperty(const std::string& key, const std::string& value) {
    properties_[key] = value;
}

std::string DataChunk::GetProperty(const std::string& key, bool& found) const {
    auto it = properties_.find(key);
    found = it != properties_.end();
    return found ? it->second : std::string();
}

uint64_t DataChunk::GetSizeOnFile() const {
    uint64_t size = kRecordHeaderSize + kPropertyBlockHeaderSize + payload_.size();
    for (const auto& [key, value] : properties_) {
        size += kPropertyHeaderSize + key.size() + value.size();
    }
    return size;
}

}  // namespace Moreld::Plexa
