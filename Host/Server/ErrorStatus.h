#pragma once

#include <grpcpp/support/status.h>

#include <exception>
#include <string_view>

namespace loopstore::host {

// Turns the storage's exceptions into gRPC statuses. The storage throws
// std::runtime_error with a human text and no code, so the code is chosen
// from fragments of the text; the text itself is passed on unchanged.
// Stateless; safe from any thread.
class ErrorStatus {
  public:
    // The code for a storage error text: NOT_FOUND for an unknown track,
    // INVALID_ARGUMENT for a bad chunk or time, FAILED_PRECONDITION for a
    // request refused in the current state, RESOURCE_EXHAUSTED when the pool
    // is short of files, INTERNAL for anything else.
    static grpc::StatusCode CodeFor(std::string_view text);

    // The status for `error`: std::invalid_argument is the server's own
    // argument checks (INVALID_ARGUMENT); other exceptions are mapped by
    // CodeFor.
    static grpc::Status FromException(const std::exception& error);
};

}  // namespace loopstore::host
