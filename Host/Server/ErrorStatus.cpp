#include "Host/Server/ErrorStatus.h"

#include <stdexcept>
#include <string>

namespace loopstore::host {

namespace {

struct Rule {
    std::string_view fragment;
    grpc::StatusCode code;
};

// First match wins. The pool's shortage is tested before the generic
// "Cannot ..." refusals that wrap it; "already exist" (a second creation)
// never contains "does not exist", so the two cannot be confused.
constexpr Rule kRules[] = {
    // Accepted chunks lost later: the text carries the reason after it.
    {"could not be stored", grpc::StatusCode::DATA_LOSS},
    {" free files remaining", grpc::StatusCode::RESOURCE_EXHAUSTED},
    {"No more recyclable file available", grpc::StatusCode::RESOURCE_EXHAUSTED},
    {"has not been created", grpc::StatusCode::NOT_FOUND},
    {"Track is not created", grpc::StatusCode::NOT_FOUND},
    {"does not exist", grpc::StatusCode::NOT_FOUND},
    {"doesn't exist", grpc::StatusCode::NOT_FOUND},
    {"Duration must be strictly positive", grpc::StatusCode::INVALID_ARGUMENT},
    {"is < end of track", grpc::StatusCode::INVALID_ARGUMENT},
    {"must be > highest timepoint in cache", grpc::StatusCode::INVALID_ARGUMENT},
    {"cannot hold a chunk of size", grpc::StatusCode::INVALID_ARGUMENT},
    {"ends after the last time point", grpc::StatusCode::INVALID_ARGUMENT},
    {"accumulated duration of the track would overflow", grpc::StatusCode::INVALID_ARGUMENT},
    {"must be lower than max cache size", grpc::StatusCode::INVALID_ARGUMENT},
    {"must be > timepoint IN", grpc::StatusCode::INVALID_ARGUMENT},
    {"is not after now", grpc::StatusCode::INVALID_ARGUMENT},
    {"is not valid UTF-8", grpc::StatusCode::INVALID_ARGUMENT},
    {" bytes, more than ", grpc::StatusCode::INVALID_ARGUMENT},
    {"max age must not be negative", grpc::StatusCode::INVALID_ARGUMENT},
    {"You must call GrowTrack", grpc::StatusCode::FAILED_PRECONDITION},
    {"Nothing to protect on track", grpc::StatusCode::FAILED_PRECONDITION},
    {"no files were protected", grpc::StatusCode::FAILED_PRECONDITION},
    {"no track id is left after", grpc::StatusCode::FAILED_PRECONDITION},
    {"already being written to", grpc::StatusCode::FAILED_PRECONDITION},
    {"active workers", grpc::StatusCode::FAILED_PRECONDITION},
    {"already exist", grpc::StatusCode::FAILED_PRECONDITION},
    {"No pool available", grpc::StatusCode::FAILED_PRECONDITION},
};

}  // namespace

grpc::StatusCode ErrorStatus::CodeFor(std::string_view text) {
    for (const Rule& rule : kRules) {
        if (text.find(rule.fragment) != std::string_view::npos)
            return rule.code;
    }
    return grpc::StatusCode::INTERNAL;
}

grpc::Status ErrorStatus::FromException(const std::exception& error) {
    const std::string text = error.what();
    if (dynamic_cast<const std::invalid_argument*>(&error) != nullptr)
        return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, text);
    return grpc::Status(CodeFor(text), text);
}

}  // namespace loopstore::host
