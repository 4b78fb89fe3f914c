#include "Host/Server/CallMetrics.h"

#include <chrono>
#include <string>

namespace loopstore::host {

namespace {

using grpc::experimental::InterceptionHookPoints;

// Times one call from its arrival to the status it sends.
class CallTimer : public grpc::experimental::Interceptor {
  public:
    CallTimer(ServerMetrics& metrics, const char* method)
        : metrics_(metrics), method_(method), start_(std::chrono::steady_clock::now()) {}

    void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override {
        if (methods->QueryInterceptionHookPoint(InterceptionHookPoints::PRE_SEND_STATUS)) {
            metrics_.ObserveGrpc(method_, methods->GetSendStatus().error_code(),
                                 std::chrono::steady_clock::now() - start_);
        }
        methods->Proceed();
    }

  private:
    ServerMetrics& metrics_;
    const std::string method_;
    const std::chrono::steady_clock::time_point start_;
};

}  // namespace

grpc::experimental::Interceptor* CallMetrics::CreateServerInterceptor(
    grpc::experimental::ServerRpcInfo* info) {
    return new CallTimer(metrics_, info->method());
}

}  // namespace loopstore::host
