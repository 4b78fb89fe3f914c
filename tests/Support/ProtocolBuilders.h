#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>

#include "Platform/Protocol/Protocol.pb.h"

namespace loopstore::test {

// The protocol's time point `ns` nanoseconds after the epoch.
inline Protocol::TimePoint At(int64_t ns) {
    Protocol::TimePoint tp;
    tp.set_nanoseconds(ns);
    return tp;
}

// A property list holding `pairs` (key, value) in order.
inline Protocol::PropertyList PropertyListOf(
    std::initializer_list<std::pair<std::string, std::string>> pairs) {
    Protocol::PropertyList list;
    for (const auto& [key, value] : pairs) {
        Protocol::Property* property = list.add_properties();
        property->set_key(key);
        property->set_value(value);
    }
    return list;
}

}  // namespace loopstore::test
