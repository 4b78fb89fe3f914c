#include "Platform/Plexa/Converter.h"

#include <utility>

namespace Moreld::Plexa {

namespace {

// Empties `message`'s properties into a map, moving the strings.
DataChunk::Properties TakeProperties(Protocol::Chunk& message) {
    DataChunk::Properties properties;
    for (Protocol::Property& property : *message.mutable_properties()) {
        properties.insert_or_assign(std::move(*property.mutable_key()),
                                    std::move(*property.mutable_value()));
    }
    message.clear_properties();
    return properties;
}

// Empties `properties` into `message`, moving the strings; map keys are const,
// so each node is extracted to move its key out.
void GiveProperties(DataChunk::Properties& properties, Protocol::Chunk& message) {
    message.mutable_properties()->Reserve(static_cast<int>(properties.size()));
    while (!properties.empty()) {
        auto node = properties.extract(properties.begin());
        Protocol::Property* property = message.add_properties();
        property->set_key(std::move(node.key()));
        property->set_value(std::move(node.mapped()));
    }
}

}  // namespace

Time::TimePoint Converter::From(const Protocol::TimePoint& timePoint) {
    return Time::TimePoint::FromNanoseconds(timePoint.nanoseconds());
}

Protocol::TimePoint Converter::To(const Time::TimePoint& timePoint) {
    Protocol::TimePoint message;
    message.set_nanoseconds(timePoint.ToNanoseconds());
    return message;
}

void Converter::Fill(const DataChunk& chunk, Protocol::Chunk& out,
                     const std::set<std::string>& keys) {
    out.mutable_timepoint()->set_nanoseconds(chunk.GetTimePoint().ToNanoseconds());
    out.mutable_duration()->set_nanoseconds(chunk.GetDuration().ToNanoseconds());
    out.set_data(chunk.GetData());
    out.clear_properties();
    for (const auto& [key, value] : chunk.GetProperties()) {
        if (keys.count(key) != 0) {
            Protocol::Property* property = out.add_properties();
            property->set_key(key);
            property->set_value(value);
        }
    }
}

void Converter::Swap(DataChunk& chunk, Protocol::Chunk& message) {
    const Time::TimePoint timePoint = chunk.GetTimePoint();
    const Time::TimePoint duration = chunk.GetDuration();
    chunk.SetTimePoint(From(message.timepoint()));
    chunk.SetDuration(From(message.duration()));
    message.mutable_timepoint()->set_nanoseconds(timePoint.ToNanoseconds());
    message.mutable_duration()->set_nanoseconds(duration.ToNanoseconds());

    message.mutable_data()->swap(chunk.MutableData());

    DataChunk::Properties fromMessage = TakeProperties(message);
    GiveProperties(chunk.MutableProperties(), message);
    chunk.MutableProperties() = std::move(fromMessage);
}

}  // namespace Moreld::Plexa
