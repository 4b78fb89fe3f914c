#pragma once

#include <cstdint>

// What a monitored worker is. The values are those of the storage protocol's
// worker type, so that conversions are plain casts.
enum class WorkerType : std::int32_t {
    Unset = 0,
    Writer = 1,
    Reader = 2,
};
