#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Host/Http/PrometheusText.h"
#include "Platform/Tools/SharedMutex.h"
#include "Platform/Tools/ThreadAnnotations.h"

namespace loopstore::host {

// Request timings and error counts of the server: a latency histogram per
// gRPC method and per HTTP route, errors by gRPC status code and by HTTP
// status class.
//
// Thread-safe and cheap on the request path: counting is atomic; a lock is
// taken exclusively only the first time a label set is seen.
class ServerMetrics {
  public:
    // `method`: "/package.Service/Method"; `code`: the grpc::StatusCode the
    // call ended with.
    void ObserveGrpc(const std::string& method, int code, std::chrono::nanoseconds elapsed);
    // `route`: the pattern that matched ("" when none did).
    void ObserveHttp(const std::string& route, int status, std::chrono::nanoseconds elapsed);

    // Adds the families of the server's requests to `out`.
    void Write(PrometheusText& out) const;

    // The name of a gRPC status code ("NOT_FOUND"), or its number.
    static std::string GrpcCodeName(int code);

  private:
    class Histogram {
      public:
        static constexpr std::array<double, 10> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025,
                                                           0.05,  0.1,    0.5,   2.5,  10};
        void Observe(std::chrono::nanoseconds elapsed);
        void Write(PrometheusText& out, const std::string& name,
                   const PrometheusText::Labels& labels) const;

      private:
        std::array<std::atomic<uint64_t>, kBounds.size()> buckets_{};  // not cumulative
        std::atomic<uint64_t> count_{0};
        std::atomic<uint64_t> sumNs_{0};
    };

    // A series of `T` by label value; entries are never removed, so a
    // reference stays valid.
    template <class T>
    class Series {
      public:
        T& At(const std::string& label);
        template <class F>
        void ForEach(F f) const;

      private:
        mutable Moreld::Tools::SharedMutex mutex_;
        std::map<std::string, std::unique_ptr<T>> entries_ GUARDED_BY(mutex_);
    };

    Series<Histogram> grpcLatency_;
    Series<Histogram> httpLatency_;
    Series<std::atomic<uint64_t>> grpcErrors_;
    Series<std::atomic<uint64_t>> httpErrors_;
};

}  // namespace loopstore::host
