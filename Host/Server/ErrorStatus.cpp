#include "Host/Server/ErrorStatus.h"

#include <stdexcept>
#include <string>

#include "Platform/Services/StorageErrors.h"

namespace loopstore::host {

namespace {

template <typename Error>
bool Is(const std::exception& error) {
    return dynamic_cast<const Error*>(&error) != nullptr;
}

}  // namespace

grpc::StatusCode ErrorStatus::CodeFor(const std::exception& error) {
    using namespace MoreldStorageApi;
    if (Is<NotFoundError>(error))
        return grpc::StatusCode::NOT_FOUND;
    if (Is<InvalidArgumentError>(error) || Is<std::invalid_argument>(error))
        return grpc::StatusCode::INVALID_ARGUMENT;
    if (Is<StoreBusyError>(error) || Is<AlreadyExistsError>(error))
        return grpc::StatusCode::FAILED_PRECONDITION;
    if (Is<OutOfSpaceError>(error))
        return grpc::StatusCode::RESOURCE_EXHAUSTED;
    if (Is<DataLossError>(error))
        return grpc::StatusCode::DATA_LOSS;
    return grpc::StatusCode::INTERNAL;
}

grpc::Status ErrorStatus::FromException(const std::exception& error) {
    return grpc::Status(CodeFor(error), error.what());
}

}  // namespace loopstore::host
