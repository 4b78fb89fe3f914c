#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Platform/Time/TimePoint.h"

namespace Moreld::Plexa {

// One media chunk in memory: its start instant, its duration, its payload
// bytes and string properties. A plain value; not synchronised.
//
// The payload is a std::string so that it can be swapped with a protobuf
// `bytes` field without copying (see Converter::Swap).
class DataChunk {
public:
    using Properties = std::map<std::string, std::string>;

    // Fixed part of a chunk's record in a chunk file, and per-property and
    // property-block overheads; see doc/chunk_file_format.md.
    static constexpr uint64_t kRecordHeaderSize = 48;
    static constexpr uint64_t kPropertyBlockHeaderSize = 4;
    static constexpr uint64_t kPropertyHeaderSize = 8;

    DataChunk() = default;
    DataChunk(Time::TimePoint timePoint, Time::TimePoint duration, std::string payload = {});

    Time::TimePoint GetTimePoint() const { return timePoint_; }
    void SetTimePoint(Time::TimePoint tp) { timePoint_ = tp; }
    Time::TimePoint GetDuration() const { return duration_; }
    void SetDuration(Time::TimePoint d) { duration_ = d; }

    const std::string& GetData() const { return payload_; }
    std::string& MutableData() { return payload_; }
    void SetData(std::string payload) { payload_ = std::move(payload); }
    uint64_t GetDataSize() const { return payload_.size(); }

    const Properties& GetProperties() const { return properties_; }
    Properties& MutableProperties() { return properties_; }
    // Sets or replaces one property.
    void SetProperty(const std::string& key, const std::string& value);
    // The value of `key`; `found` tells whether it exists ("" when not).
    std::string GetProperty(const std::string& key, bool& found) const;
    bool HasProperty(const std::string& key) const { return properties_.count(key) != 0; }

    // Exact number of bytes this chunk takes as one record of a chunk file.
    uint64_t GetSizeOnFile() const;

    bool operator==(const DataChunk& other) const = default;

private:
    Time::TimePoint timePoint_;
    Time::TimePoint duration_;
    std::string payload_;
    Properties properties_;
};

}  // namespace Moreld::Plexa
