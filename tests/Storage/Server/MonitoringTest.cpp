#include "Storage/Server/Monitoring.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <latch>
#include <thread>
#include <vector>

namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kSecond = 1'000 * kMs;

// A monitoring whose clock the test moves by hand.
class MonitoringTest : public ::testing::Test {
  protected:
    std::atomic<std::int64_t> now_{5 * kSecond};
    Monitoring monitoring_{[this] { return now_.load(); }};
};

}  // namespace

TEST_F(MonitoringTest, ThroughputCoversTheLastSecond) {
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Writer, 42, 7, 3, "client A"));
    const std::int64_t start = now_;
    for (int i = 0; i < 10; ++i) {
        now_ = start + i * 100 * kMs;
        monitoring_.Log(42, 1000);
    }

    Monitoring::WorkerInfo info = monitoring_.GetWorkerInfo(42);
    EXPECT_EQ(info.type, WorkerType::Writer);
    EXPECT_EQ(info.workerId, 42);
    EXPECT_EQ(info.threadId, 7);
    EXPECT_EQ(info.trackId, 3);
    EXPECT_EQ(info.description, "client A");
    EXPECT_EQ(info.totalBytes, 10'000);
    EXPECT_EQ(info.throughput, 10'000);

    // The window includes its start: exactly one second after the last
    // sample, that sample still counts; a nanosecond later nothing does.
    const std::int64_t last = start + 900 * kMs;
    now_ = last + kSecond;
    EXPECT_EQ(monitoring_.GetWorkerInfo(42).throughput, 1000);
    now_ = last + kSecond + 1;
    info = monitoring_.GetWorkerInfo(42);
    EXPECT_EQ(info.throughput, 0);
    EXPECT_EQ(info.totalBytes, 10'000);

    // Re-adding takes the new fields but keeps the samples.
    now_ = last;
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Reader, 42, 8, 4, "client B"));
    info = monitoring_.GetWorkerInfo(42);
    EXPECT_EQ(info.type, WorkerType::Reader);
    EXPECT_EQ(info.trackId, 4);
    EXPECT_EQ(info.description, "client B");
    EXPECT_EQ(info.totalBytes, 0);
    EXPECT_EQ(info.throughput, 10'000);
}

TEST_F(MonitoringTest, RingSeesTheLatestSamplesOnly) {
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Reader, 1, 0, 1, ""));
    long total = 0;
    long latest = 0;
    const long count = Monitoring::WorkerData::kRingSize + 50;
    for (long bytes = 1; bytes <= count; ++bytes) {
        monitoring_.Log(1, static_cast<unsigned long>(bytes));
        total += bytes;
        if (bytes > count - static_cast<long>(Monitoring::WorkerData::kRingSize)) {
            latest += bytes;
        }
    }
    const Monitoring::WorkerInfo info = monitoring_.GetWorkerInfo(1);
    EXPECT_EQ(info.totalBytes, total);
    EXPECT_EQ(info.throughput, latest);

    // The samples a clear leaves behind weigh nothing, even inside the window.
    Monitoring::WorkerData data(now_);
    EXPECT_EQ(data.ComputeThroughput(now_), 0);
    data.Add(300, now_);
    data.Clear(now_);
    EXPECT_EQ(data.ComputeThroughput(now_), 0);
    EXPECT_EQ(data.GetInfo().totalBytes, 0);
    EXPECT_EQ(data.GetInfo().type, WorkerType::Unset);
}

TEST_F(MonitoringTest, UnknownWorkersAreIgnored) {
    monitoring_.Log(99, 1000);
    EXPECT_TRUE(monitoring_.GetActiveWorkers().empty());
    const Monitoring::WorkerInfo unknown = monitoring_.GetWorkerInfo(99);
    EXPECT_EQ(unknown.type, WorkerType::Unset);
    EXPECT_EQ(unknown.workerId, 0);
    EXPECT_EQ(unknown.totalBytes, 0);
    EXPECT_EQ(unknown.throughput, 0);
    EXPECT_EQ(unknown.description, "");

    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Writer, 5, 0, 1, "w"));
    monitoring_.Log(5, 10);
    monitoring_.Remove(5);
    monitoring_.Remove(5);
    monitoring_.Log(5, 10);
    EXPECT_EQ(monitoring_.GetWorkerInfo(5).type, WorkerType::Unset);
    EXPECT_EQ(monitoring_.GetNumberWorkers(1), 0u);

    // A worker added again after its removal starts from nothing.
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Writer, 5, 0, 1, "w"));
    EXPECT_EQ(monitoring_.GetWorkerInfo(5).throughput, 0);
}

TEST_F(MonitoringTest, WorkersByIdAndByTrack) {
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Reader, 30, 0, 1, ""));
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Writer, 10, 0, 1, ""));
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Reader, 20, 0, 2, ""));
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Reader, -5, 0, 1, ""));

    const std::vector<std::pair<long, long>> expected = {{-5, 1}, {10, 1}, {20, 2}, {30, 1}};
    EXPECT_EQ(monitoring_.GetActiveWorkers(), expected);
    EXPECT_EQ(monitoring_.GetNumberWorkers(1), 3u);
    EXPECT_EQ(monitoring_.GetNumberWorkers(2), 1u);
    EXPECT_EQ(monitoring_.GetNumberWorkers(3), 0u);

    // A worker moved to another track by a new Add counts there only.
    monitoring_.Add(Monitoring::WorkerInfo(WorkerType::Reader, 30, 0, 2, ""));
    EXPECT_EQ(monitoring_.GetNumberWorkers(1), 2u);
    EXPECT_EQ(monitoring_.GetNumberWorkers(2), 2u);
}

TEST(Monitoring, TrackMutexesAreStable) {
    Monitoring monitoring;
    Moreld::Tools::Mutex& first = monitoring.GetMutex(7);
    EXPECT_EQ(&first, &monitoring.GetMutex(7));
    EXPECT_NE(&first, &monitoring.GetMutex(8));
    for (long track = 100; track < 1100; ++track) {
        monitoring.GetMutex(track);
    }
    EXPECT_EQ(&first, &monitoring.GetMutex(7));
}

// Workers log from their own threads while others come and go and a client
// reads the figures: totals must come out exact.
TEST(Monitoring, ConcurrentLogAddRemoveAndRead) {
    constexpr int kLoggers = 4;
    constexpr int kChunks = 2000;
    Monitoring monitoring;
    for (long id = 1; id <= kLoggers; ++id) {
        monitoring.Add(Monitoring::WorkerInfo(WorkerType::Writer, id, 0, id, "logger"));
    }
    std::latch start(kLoggers + 2);
    std::atomic<bool> loggersDone{false};
    std::vector<std::thread> threads;
    for (long id = 1; id <= kLoggers; ++id) {
        threads.emplace_back([&, id] {
            start.arrive_and_wait();
            for (int i = 0; i < kChunks; ++i) {
                monitoring.Log(id, 10);
            }
        });
    }
    std::thread churn([&] {
        start.arrive_and_wait();
        // Runs at least until the loggers are done, so that the two overlap.
        for (long round = 0; round < 100 || !loggersDone; ++round) {
            const long id = 1000 + round % 16;
            monitoring.Add(Monitoring::WorkerInfo(WorkerType::Reader, id, 0, 1, "churn"));
            monitoring.Log(id, 1);
            monitoring.Remove(id);
        }
    });
    std::thread reader([&] {
        start.arrive_and_wait();
        while (!loggersDone) {
            for (long id = 1; id <= kLoggers; ++id) {
                const Monitoring::WorkerInfo info = monitoring.GetWorkerInfo(id);
                EXPECT_LE(info.totalBytes, kChunks * 10);
                EXPECT_LE(info.throughput, info.totalBytes);
            }
            monitoring.GetActiveWorkers();
            monitoring.GetNumberWorkers(1);
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    loggersDone = true;
    churn.join();
    reader.join();

    for (long id = 1; id <= kLoggers; ++id) {
        EXPECT_EQ(monitoring.GetWorkerInfo(id).totalBytes, kChunks * 10) << "worker " << id;
    }
    EXPECT_EQ(monitoring.GetActiveWorkers().size(), static_cast<size_t>(kLoggers));
}
