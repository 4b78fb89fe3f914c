#include "Host/Server/ServerMetrics.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "Platform/Tools/ReaderLock.h"
#include "Platform/Tools/WriterLock.h"

namespace loopstore::host {

namespace {

constexpr const char* kGrpcCodes[] = {
    "OK",        "CANCELLED",      "UNKNOWN",           "INVALID_ARGUMENT",   "DEADLINE_EXCEEDED",
    "NOT_FOUND", "ALREADY_EXISTS", "PERMISSION_DENIED", "RESOURCE_EXHAUSTED", "FAILED_PRECONDITION",
    "ABORTED",   "OUT_OF_RANGE",   "UNIMPLEMENTED",     "INTERNAL",           "UNAVAILABLE",
    "DATA_LOSS", "UNAUTHENTICATED"};

}  // namespace

template <class T>
T& ServerMetrics::Series<T>::At(const std::string& label) {
    {
        Moreld::Tools::ReaderLock<> lock(mutex_);
        const auto it = entries_.find(label);
        if (it != entries_.end())
            return *it->second;
    }
    Moreld::Tools::WriterLock<> lock(mutex_);
    auto& entry = entries_[label];
    if (!entry)
        entry = std::make_unique<T>();
    return *entry;
}

template <class T>
template <class F>
void ServerMetrics::Series<T>::ForEach(F f) const {
    Moreld::Tools::ReaderLock<> lock(mutex_);
    for (const auto& [label, value] : entries_)
        f(label, *value);
}

void ServerMetrics::Histogram::Observe(std::chrono::nanoseconds elapsed) {
    const double seconds = std::chrono::duration<double>(elapsed).count();
    for (std::size_t i = 0; i < kBounds.size(); ++i) {
        if (seconds <= kBounds[i]) {
            buckets_[i].fetch_add(1, std::memory_order_relaxed);
            break;
        }
    }
    sumNs_.fetch_add(static_cast<uint64_t>(elapsed.count()), std::memory_order_relaxed);
    count_.fetch_add(1, std::memory_order_relaxed);
}

void ServerMetrics::Histogram::Write(PrometheusText& out, const std::string& name,
                                     const PrometheusText::Labels& labels) const {
    // The count is read first: a scrape racing an observation may then miss
    // it in the count, but never shows a bucket above the +Inf one.
    const uint64_t count = count_.load(std::memory_order_relaxed);
    std::vector<uint64_t> cumulative;
    uint64_t sum = 0;
    for (const auto& bucket : buckets_) {
        sum += bucket.load(std::memory_order_relaxed);
        cumulative.push_back(std::min(sum, count));
    }
    out.Histogram(name, labels, {kBounds.begin(), kBounds.end()}, cumulative,
                  static_cast<double>(sumNs_.load(std::memory_order_relaxed)) / 1e9, count);
}

std::string ServerMetrics::GrpcCodeName(int code) {
    if (code >= 0 && code < static_cast<int>(std::size(kGrpcCodes)))
        return kGrpcCodes[code];
    return std::to_string(code);
}

void ServerMetrics::ObserveGrpc(const std::string& method, int code,
                                std::chrono::nanoseconds elapsed) {
    grpcLatency_.At(method).Observe(elapsed);
    if (code != 0)
        grpcErrors_.At(GrpcCodeName(code)).fetch_add(1, std::memory_order_relaxed);
}

void ServerMetrics::ObserveHttp(const std::string& route, int status,
                                std::chrono::nanoseconds elapsed) {
    httpLatency_.At(route.empty() ? "unmatched" : route).Observe(elapsed);
    if (status >= 400)
        httpErrors_.At(std::to_string(status / 100) + "xx").fetch_add(1, std::memory_order_relaxed);
}

void ServerMetrics::Write(PrometheusText& out) const {
    out.Family("loopstore_grpc_request_duration_seconds", "histogram",
               "Time from the start of a gRPC call to its status, by method");
    grpcLatency_.ForEach([&](const std::string& method, const Histogram& h) {
        h.Write(out, "loopstore_grpc_request_duration_seconds", {{"method", method}});
    });
    out.Family("loopstore_grpc_errors_total", "counter", "gRPC calls that failed, by status code");
    grpcErrors_.ForEach([&](const std::string& code, const std::atomic<uint64_t>& n) {
        out.Sample("loopstore_grpc_errors_total", {{"code", code}}, static_cast<double>(n.load()));
    });
    out.Family("loopstore_http_request_duration_seconds", "histogram",
               "Time to answer an HTTP request (to its first byte when streamed), by route");
    httpLatency_.ForEach([&](const std::string& route, const Histogram& h) {
        h.Write(out, "loopstore_http_request_duration_seconds", {{"route", route}});
    });
    out.Family("loopstore_http_errors_total", "counter",
               "HTTP requests answered with an error, by status class");
    httpErrors_.ForEach([&](const std::string& kind, const std::atomic<uint64_t>& n) {
        out.Sample("loopstore_http_errors_total", {{"class", kind}}, static_cast<double>(n.load()));
    });
}

}  // namespace loopstore::host
