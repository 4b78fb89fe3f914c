#pragma once

#include <grpcpp/support/status.h>

#include <exception>

namespace loopstore::host {

// Turns the storage's exceptions into gRPC statuses, by their type (the kinds
// of MoreldStorageApi/StorageErrors.h); the text is passed on unchanged.
// Stateless; safe from any thread.
class ErrorStatus {
  public:
    // NOT_FOUND for an unknown track; INVALID_ARGUMENT for refused input
    // (and std::invalid_argument, the server's own checks);
    // FAILED_PRECONDITION for a request refused in the current state (a
    // track in use or without files, a track that exists already);
    // RESOURCE_EXHAUSTED when the store has no room; DATA_LOSS for lost or
    // damaged data; INTERNAL for anything else, I/O failures included.
    static grpc::StatusCode CodeFor(const std::exception& error);

    static grpc::Status FromException(const std::exception& error);
};

}  // namespace loopstore::host
