#include "Host/Server/ServerMetrics.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

namespace loopstore::host {
namespace {

using namespace std::chrono_literals;

// Sample lines of the text format by their name and labels as written.
std::map<std::string, double> Samples(const std::string& text) {
    std::map<std::string, double> samples;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        const auto space = line.rfind(' ');
        samples[line.substr(0, space)] = std::stod(line.substr(space + 1));
    }
    return samples;
}

std::string Scrape(const ServerMetrics& metrics) {
    PrometheusText out;
    metrics.Write(out);
    return out.Text();
}

// Within one scrape each histogram's buckets only grow and end at its count.
void ExpectConsistent(const std::map<std::string, double>& samples) {
    std::map<std::string, double> last;
    for (const auto& [key, value] : samples) {
        const auto le = key.find(",le=\"");
        if (key.find("_bucket{") == std::string::npos || le == std::string::npos)
            continue;
        const std::string series = key.substr(0, le);
        // Buckets come in map order, not bound order: compare with +Inf only.
        if (key.find("le=\"+Inf\"") != std::string::npos)
            last[series] = value;
    }
    for (const auto& [key, value] : samples) {
        const auto le = key.find(",le=\"");
        if (key.find("_bucket{") != std::string::npos && le != std::string::npos) {
            EXPECT_LE(value, last[key.substr(0, le)]) << key;
        }
    }
}

TEST(ServerMetricsTest, CountsEveryObservationWhileScraped) {
    ServerMetrics metrics;
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    std::latch start(kThreads + 1);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kPerThread; ++i) {
                // New label sets keep appearing while others count.
                const std::string method = "/svc/M" + std::to_string((i + t) % 7);
                metrics.ObserveGrpc(method, i % 10 == 0 ? 5 : 0, std::chrono::microseconds(i));
                metrics.ObserveHttp(i % 2 ? "/api/tracks" : "", i % 4 == 1 ? 404 : 200, 3ms);
            }
        });
    }
    std::thread scraper([&] {
        start.arrive_and_wait();
        while (!done.load())
            ExpectConsistent(Samples(Scrape(metrics)));
    });
    for (auto& thread : threads)
        thread.join();
    done = true;
    scraper.join();

    const auto samples = Samples(Scrape(metrics));
    ExpectConsistent(samples);
    double grpcCalls = 0;
    for (int m = 0; m < 7; ++m) {
        grpcCalls += samples.at("loopstore_grpc_request_duration_seconds_count{method=\"/svc/M" +
                                std::to_string(m) + "\"}");
    }
    EXPECT_EQ(grpcCalls, kThreads * kPerThread);
    EXPECT_EQ(samples.at("loopstore_grpc_errors_total{code=\"NOT_FOUND\"}"),
              kThreads * kPerThread / 10);
    EXPECT_EQ(samples.count("loopstore_grpc_errors_total{code=\"OK\"}"), 0u);
    EXPECT_EQ(samples.at("loopstore_http_request_duration_seconds_count{route=\"/api/tracks\"}"),
              kThreads * kPerThread / 2);
    EXPECT_EQ(samples.at("loopstore_http_request_duration_seconds_count{route=\"unmatched\"}"),
              kThreads * kPerThread / 2);
    // 3 ms lies above the 2.5 ms bound and within the 5 ms one.
    EXPECT_EQ(samples.at("loopstore_http_request_duration_seconds_bucket{route=\"unmatched\","
                         "le=\"0.0025\"}"),
              0);
    EXPECT_EQ(samples.at("loopstore_http_request_duration_seconds_bucket{route=\"unmatched\","
                         "le=\"0.005\"}"),
              kThreads * kPerThread / 2);
    EXPECT_EQ(samples.at("loopstore_http_errors_total{class=\"4xx\"}"), kThreads * kPerThread / 4);
    EXPECT_EQ(ServerMetrics::GrpcCodeName(16), "UNAUTHENTICATED");
    EXPECT_EQ(ServerMetrics::GrpcCodeName(42), "42");
}

}  // namespace
}  // namespace loopstore::host
