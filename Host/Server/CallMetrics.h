#pragma once

#include <grpcpp/support/server_interceptor.h>

#include "Host/Server/ServerMetrics.h"

namespace loopstore::host {

// Feeds ServerMetrics with every gRPC call's time and final status, whatever
// service answers it (health and reflection included): a server
// interceptor, so the handlers need not know.
//
// Refers to the metrics, which must outlive the gRPC server. gRPC creates
// one interceptor per call, from any thread.
class CallMetrics : public grpc::experimental::ServerInterceptorFactoryInterface {
  public:
    explicit CallMetrics(ServerMetrics& metrics) : metrics_(metrics) {}

    grpc::experimental::Interceptor* CreateServerInterceptor(
        grpc::experimental::ServerRpcInfo* info) override;

  private:
    ServerMetrics& metrics_;
};

}  // namespace loopstore::host
