#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace loopstore::host {

// Argument checks shared by the RPC handlers, made before a request reaches
// the storage, which computes with its times as they are. Stateless.
class RequestChecks {
  public:
    RequestChecks() = delete;

    // The end of an interval of `length` ns from `start`; throws
    // std::invalid_argument beginning with `what` when it lies beyond the
    // 64-bit nanosecond range (past 2262, before 1677).
    static int64_t EndOf(int64_t start, int64_t length, const std::string& what) {
        int64_t end = 0;
        if (__builtin_add_overflow(start, length, &end)) {
            throw std::invalid_argument(what + " from " + std::to_string(start) + " ns lasting " +
                                        std::to_string(length) +
                                        " ns ends outside the range of time points");
        }
        return end;
    }
};

}  // namespace loopstore::host
