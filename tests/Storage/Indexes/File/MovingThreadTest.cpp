#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/File/ExtendedAttributes.h"
#include "Platform/Logging/LogCapture.h"
#include "Storage/Indexes/File/ExtendedAttributeNames.h"
#include "Storage/Indexes/File/MovingThread.h"
#include "tests/Support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using loopstore::test::CreatePreallocatedFile;
using loopstore::test::TempDir;
using Moreld::File::ExtendedAttributes;
using tav::mr::logging::LogCapture;

// Short, so that Stop does not wait long on an idle queue.
constexpr unsigned long kPollMs = 5;

class MovingThreadTest : public ::testing::Test {
  protected:
    MovingThreadTest() {
        for (const char* name : {"pool", "1", "2"}) {
            fs::create_directory(dir_ / name);
        }
    }
    std::string Dir(const std::string& name) const { return dir_ / name; }
    static ChunkFile File(long number) { return ChunkFile(number, 4, 16, 0); }
    std::string PathOf(const std::string& directory, long number) const {
        return File(number).GetAbsoluteFileName(Dir(directory), true);
    }
    void Create(const std::string& directory, long number) {
        CreatePreallocatedFile(PathOf(directory, number), 16);
    }
    static MovedData Request(std::vector<ChunkFile> files, std::string from, std::string to,
                             MovedData::Origin origin) {
        MovedData request;
        request.files = std::move(files);
        request.sourceDirectory = std::move(from);
        request.destinationDirectory = std::move(to);
        request.origin = origin;
        return request;
    }
    std::string Attribute(const std::string& path, const char* name) const {
        bool found = false;
        const std::string value = ExtendedAttributes::Read(path, name, found);
        return found ? value : "<absent>";
    }

    TempDir dir_;
};

// Files gathered from two tracks into the pool go back each to its own track.
TEST_F(MovingThreadTest, ScattersAndGathersBackThroughOriginAttribute) {
    Create("1", 1);
    Create("1", 2);
    Create("2", 3);
    MovingThread thread(kPollMs);
    thread.Start();
    thread.Push(Request({File(1), File(2)}, Dir("1"), Dir("pool"), MovedData::Origin::kWrite));
    thread.Push(Request({File(3)}, Dir("2"), Dir("pool"), MovedData::Origin::kWrite));
    thread.WaitUntilDone();
    for (long number : {1, 2, 3}) {
        ASSERT_TRUE(fs::exists(PathOf("pool", number))) << number;
    }
    EXPECT_EQ(Attribute(PathOf("pool", 2), ExtendedAttributeNames::kOriginDirectory), Dir("1"));
    EXPECT_EQ(Attribute(PathOf("pool", 3), ExtendedAttributeNames::kOriginDirectory), Dir("2"));

    // The destination given is ignored: each file's stamp decides.
    thread.Push(Request({File(1), File(2), File(3)}, Dir("pool"), Dir("elsewhere"),
                        MovedData::Origin::kReadBack));
    thread.WaitUntilDone();
    EXPECT_TRUE(fs::exists(PathOf("1", 1)));
    EXPECT_TRUE(fs::exists(PathOf("1", 2)));
    EXPECT_TRUE(fs::exists(PathOf("2", 3)));
    EXPECT_TRUE(fs::is_empty(Dir("pool")));
    EXPECT_EQ(thread.GetMovedCount(), 6u);
    EXPECT_EQ(thread.GetFailedCount(), 0u);
}

TEST_F(MovingThreadTest, SkipsFilesThatCannotMoveAndGoesOn) {
    Create("1", 2);
    Create("pool", 3);  // no origin stamp
    Create("pool", 4);
    ExtendedAttributes::Write(PathOf("pool", 4), ExtendedAttributeNames::kOriginDirectory,
                              Dir("missing"));
    Create("1", 5);

    LogCapture capture("MovingThread");
    MovingThread thread(kPollMs);
    thread.Start();
    MovedData plain = Request({File(1), File(2)}, Dir("1"), Dir("2"), MovedData::Origin::kIgnore);
    plain.markEmptyFile = true;
    thread.Push(plain);
    thread.Push(Request({File(3), File(4)}, Dir("pool"), "", MovedData::Origin::kReadBack));
    // Writing a stamp on a missing file fails before any rename.
    thread.Push(Request({File(9), File(5)}, Dir("1"), Dir("2"), MovedData::Origin::kWrite));
    thread.WaitUntilDone();

    EXPECT_EQ(capture.LevelOf("Couldn't move file " + PathOf("1", 1) + " to " + PathOf("2", 1)),
              40);
    EXPECT_EQ(Attribute(PathOf("2", 2), ExtendedAttributeNames::kEmptyFile), "1");
    EXPECT_TRUE(capture.HasExactly("Couldn't move file " + PathOf("pool", 3) +
                                   ": no origin directory in user.originDirectory"));
    EXPECT_TRUE(fs::exists(PathOf("pool", 3)));
    EXPECT_TRUE(fs::exists(PathOf("pool", 4)));  // its origin is gone
    EXPECT_TRUE(fs::exists(PathOf("2", 5)));
    EXPECT_EQ(Attribute(PathOf("2", 5), ExtendedAttributeNames::kEmptyFile), "<absent>");
    EXPECT_EQ(thread.GetMovedCount(), 2u);
    EXPECT_EQ(thread.GetFailedCount(), 4u);
}

TEST_F(MovingThreadTest, StartStopAndQueuedRequests) {
    Create("1", 1);
    Create("1", 2);
    MovingThread thread(kPollMs);
    EXPECT_FALSE(thread.IsRunning());
    thread.Stop();  // nothing to stop

    // Queued before Start, handled after it.
    thread.Push(Request({File(1)}, Dir("1"), Dir("2"), MovedData::Origin::kIgnore));
    thread.Start();
    EXPECT_THROW(thread.Start(), std::runtime_error);
    thread.WaitUntilDone();
    EXPECT_TRUE(fs::exists(PathOf("2", 1)));

    // Stop right after a push still handles it: only an empty queue ends
    // the thread.
    thread.Push(Request({File(2)}, Dir("1"), Dir("2"), MovedData::Origin::kIgnore));
    thread.Stop();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(fs::exists(PathOf("2", 2)));

    // It can be started again.
    thread.Start();
    thread.Push(Request({File(1), File(2)}, Dir("2"), Dir("1"), MovedData::Origin::kIgnore));
    thread.WaitUntilDone();
    EXPECT_EQ(thread.GetMovedCount(), 4u);
}

TEST_F(MovingThreadTest, ManyProducersEachFileMovedOnce) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 25;
    for (long number = 0; number < kProducers * kPerProducer; ++number) {
        Create("1", number);
    }
    MovingThread thread(kPollMs);
    thread.Start();
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                thread.Push(Request({File(p * kPerProducer + i)}, Dir("1"), Dir("2"),
                                    MovedData::Origin::kWrite));
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    thread.WaitUntilDone();
    EXPECT_EQ(thread.GetMovedCount(), static_cast<uint64_t>(kProducers * kPerProducer));
    EXPECT_EQ(thread.GetFailedCount(), 0u);
    EXPECT_TRUE(fs::is_empty(Dir("1")));
    thread.Stop();
}

}  // namespace
