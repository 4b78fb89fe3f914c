#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <latch>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Tools/DirectoryParser.h"
#include "Platform/Tools/PeriodicThread.h"
#include "Platform/Tools/PrintIntegers.h"
#include "Platform/Tools/Semaphore.h"
#include "Platform/Tools/StdTimer.h"
#include "tests/Support/TempDir.h"

namespace {

using loopstore::test::TempDir;
using Moreld::Tools::DirectoryParser;
using Moreld::Tools::PrintIntegers;
using Moreld::Tools::Semaphore;
using Moreld::Tools::StdTimer;

std::set<std::string> ListAll(const std::string& directory) {
    DirectoryParser parser(directory);
    std::set<std::string> entries;
    std::string entry;
    while (parser.Next(entry)) {
        EXPECT_TRUE(entries.insert(entry).second) << "given twice: " << entry;
    }
    return entries;
}

TEST(DirectoryParser, ListsFilesAndDirectoriesAsStatablePaths) {
    TempDir dir;
    loopstore::test::CreatePreallocatedFile(dir / "7", 16);
    loopstore::test::CreatePreallocatedFile(dir / "file", 1);
    std::filesystem::create_directory(dir / "3");
    std::filesystem::create_directory(dir / "abc");
    std::filesystem::create_directory(dir / "abc" + "/nested");

    const std::set<std::string> expected = {dir / "3", dir / "7", dir / "abc", dir / "file"};
    EXPECT_EQ(ListAll(dir.Path()), expected);
    // A trailing '/' on the directory gives the same paths, not "dir//3".
    EXPECT_EQ(ListAll(dir.Path() + "/"), expected);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "3"));

    TempDir empty;
    DirectoryParser parser(empty.Path());
    std::string entry = "untouched";
    EXPECT_FALSE(parser.Next(entry));
    EXPECT_EQ(entry, "untouched");
    EXPECT_FALSE(parser.Next(entry));
}

TEST(DirectoryParser, ThrowsNamingAPathThatCannotBeOpened) {
    TempDir dir;
    loopstore::test::CreatePreallocatedFile(dir / "plain", 1);
    for (const std::string& bad : {dir / "missing", dir / "plain"}) {
        try {
            DirectoryParser parser(bad);
            ADD_FAILURE() << "no exception for " << bad;
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(bad), std::string::npos) << error.what();
        }
    }
}

TEST(StdTimer, MeasuresMicrosecondsFromConstructionOrRestart) {
    StdTimer outer;
    StdTimer inner;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_GE(inner.GetEllapsedTime(), 2000);
    inner.Restart();
    // Read the restarted timer first: it can then never be ahead of the older one.
    const int64_t restarted = inner.GetEllapsedTime();
    const int64_t running = outer.GetEllapsedTime();
    EXPECT_GE(restarted, 0);
    EXPECT_GE(running, 2000);
    EXPECT_LE(restarted, running);
}

TEST(Semaphore, CountsSignalsAndSetupResetsTheCount) {
    Semaphore semaphore;
    EXPECT_EQ(semaphore.GetCount(), 0);
    semaphore.Setup(3);
    semaphore.Wait();
    semaphore.Wait();
    semaphore.Wait();
    EXPECT_EQ(semaphore.GetCount(), 0);

    for (int i = 0; i < 5; ++i) {
        semaphore.Signal();
    }
    EXPECT_EQ(semaphore.GetCount(), 5);
    // Forgotten signals must not release a later waiter: only the new one does.
    semaphore.Setup(0);
    std::latch started(1);
    std::thread waiter([&] {
        started.count_down();
        semaphore.Wait();
    });
    started.wait();
    semaphore.Signal();
    waiter.join();
    EXPECT_EQ(semaphore.GetCount(), 0);

    // A positive Setup releases a waiter, whether it is already blocked or not.
    std::thread second([&] { semaphore.Wait(); });
    semaphore.Setup(2);
    second.join();
    EXPECT_EQ(semaphore.GetCount(), 1);
}

TEST(Semaphore, EverySignalReleasesExactlyOneWaitAcrossThreads) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    Semaphore work;
    Semaphore done;
    std::vector<std::thread> consumers;
    for (int t = 0; t < kThreads; ++t) {
        consumers.emplace_back([&] {
            for (int i = 0; i < kPerThread; ++i) {
                work.Wait();
                done.Signal();
            }
        });
    }
    std::thread producer([&] {
        for (int i = 0; i < kThreads * kPerThread; ++i) {
            work.Signal();
        }
    });
    for (int i = 0; i < kThreads * kPerThread; ++i) {
        done.Wait();
    }
    producer.join();
    for (std::thread& consumer : consumers) {
        consumer.join();
    }
    EXPECT_EQ(work.GetCount(), 0);
    EXPECT_EQ(done.GetCount(), 0);
}

TEST(PeriodicThread, RunsAgainAndAgainAndStopsWithoutWaitingOutItsInterval) {
    {
        std::latch threeRuns(3);
        std::atomic<int> runs{0};
        Moreld::Tools::PeriodicThread thread(std::chrono::milliseconds(1), [&] {
            if (++runs <= 3)
                threeRuns.count_down();
        });
        threeRuns.wait();
        thread.Stop();
        const int stopped = runs.load();
        thread.Stop();                    // a second stop is harmless
        EXPECT_EQ(runs.load(), stopped);  // no run after Stop returned
    }
    // An hour-long interval: the stop (here the destructor) ends it at once,
    // and the task never ran. A hang here is the failure.
    std::atomic<int> runs{0};
    {
        Moreld::Tools::PeriodicThread thread(std::chrono::hours(1), [&] { ++runs; });
    }
    EXPECT_EQ(runs.load(), 0);
}

TEST(PrintIntegers, CollapsesRunsOfConsecutiveValues) {
    EXPECT_EQ(PrintIntegers(std::set<long>{1, 2, 3, 7, 9, 10}), "1-3,7,9-10");
    EXPECT_EQ(PrintIntegers(std::set<long>{}), "");
    EXPECT_EQ(PrintIntegers(std::set<long>{42}), "42");
    EXPECT_EQ(PrintIntegers(std::vector<int>{4, 5, 6, 7}), "4-7");
    EXPECT_EQ(PrintIntegers(std::vector<int>{-3, -2, 0, 2}), "-3--2,0,2");
    EXPECT_EQ(PrintIntegers(std::vector<int>{1, 1, 2, 2, 5}), "1-2,5");
    EXPECT_EQ(PrintIntegers(std::set<unsigned long>{0, 18'446'744'073'709'551'615u}),
              "0,18446744073709551615");
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    EXPECT_EQ(PrintIntegers(std::vector<int64_t>{kMin, kMin + 1, kMax - 1, kMax}),
              "-9223372036854775808--9223372036854775807,"
              "9223372036854775806-9223372036854775807");
}

}  // namespace
