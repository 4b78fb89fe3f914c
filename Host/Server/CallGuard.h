#pragma once

#include <grpcpp/server_context.h>
#include <grpcpp/support/status.h>

#include <functional>
#include <string>

#include "Platform/Logging/Logger.h"

namespace loopstore::host {

// Runs the body of every RPC handler: checks the caller's bearer token, then
// runs the body and turns whatever it throws into a status, so that a bad
// request never takes the server down. Immutable after construction; safe
// from any thread.
class CallGuard {
  public:
    // An empty `token` lets every call in; otherwise each call must carry
    // the metadata "authorization: Bearer <token>".
    explicit CallGuard(std::string token);

    // Returns UNAUTHENTICATED without running `body` when the token is
    // missing or wrong; else OK when `body` returns, or the status mapped
    // from its exception (logged at level 40 with the peer and `method`).
    grpc::Status Run(grpc::ServerContext& context, const char* method,
                     const std::function<void()>& body) const;

  private:
    bool Authorized(const grpc::ServerContext& context) const;

    const std::string expected_;  // "Bearer <token>", or empty
    tav::mr::logging::Logger logger_;
};

}  // namespace loopstore::host
