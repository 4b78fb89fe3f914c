#include "Host/Server/CallGuard.h"

#include <exception>
#include <string_view>

#include "Host/Server/ErrorStatus.h"
#include "Platform/Logging/LoggingManager.h"

namespace loopstore::host {

namespace {

// Compares without stopping at the first difference, so that the time a
// refusal takes tells nothing about how much of the token was right.
bool SameSecret(std::string_view given, std::string_view expected) {
    if (given.size() != expected.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < given.size(); ++i)
        diff |= static_cast<unsigned char>(given[i] ^ expected[i]);
    return diff == 0;
}

}  // namespace

CallGuard::CallGuard(std::string token)
    : expected_(token.empty() ? std::string() : "Bearer " + token),
      logger_(tav::mr::logging::LoggingManager::GetLogger("CallGuard")) {}

bool CallGuard::Authorized(const grpc::ServerContext& context) const {
    if (expected_.empty())
        return true;
    const auto& metadata = context.client_metadata();
    const auto range = metadata.equal_range("authorization");
    for (auto it = range.first; it != range.second; ++it) {
        if (SameSecret(std::string_view(it->second.data(), it->second.size()), expected_))
            return true;
    }
    return false;
}

grpc::Status CallGuard::Run(grpc::ServerContext& context, const char* method,
                            const std::function<void()>& body) const {
    if (!Authorized(context)) {
        MR_LOG(logger_, 40, context.peer() << ": " << method << " refused: no valid token");
        return grpc::Status(grpc::StatusCode::UNAUTHENTICATED,
                            "A valid \"authorization: Bearer <token>\" is required");
    }
    try {
        body();
        return grpc::Status::OK;
    } catch (const std::exception& e) {
        MR_LOG(logger_, 40, context.peer() << ": " << method << " failed: " << e.what());
        return ErrorStatus::FromException(e);
    } catch (...) {
        MR_LOG(logger_, 40, context.peer() << ": " << method << " failed: unknown exception");
        return grpc::Status(grpc::StatusCode::INTERNAL,
                            std::string(method) + ": unknown exception");
    }
}

}  // namespace loopstore::host
