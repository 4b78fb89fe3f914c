// The offline check reads a damaged store without changing a byte of it and
// names each problem; a start-up then repairs what it can, and never deletes
// what the store does not own.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "Platform/Logging/LogCapture.h"
#include "Storage/Server/Factories/StoreCheck.h"
#include "tests/Storage/Server/Factories/PowerCutHarness.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Storage/Server/Factories/StoreAudit.h"
#include "tests/Support/TestTime.h"

namespace fs = std::filesystem;
using loopstore::test::CutMode;
using loopstore::test::ExpectFilesConserved;
using loopstore::test::FaultInjectionEnv;
using loopstore::test::kSecond;
using loopstore::test::PowerCutHarness;
using loopstore::test::Storage;
using loopstore::test::TrackChunk;

namespace {

// Every file under the store's three directories: path -> its bytes.
std::map<std::string, std::string> Contents(const Storage& s) {
    std::map<std::string, std::string> contents;
    for (const std::string& root : {s.TracksDir(), s.DbDir(), s.PoolDir()}) {
        if (!fs::exists(root))
            continue;
        for (const fs::directory_entry& e : fs::recursive_directory_iterator(root)) {
            std::ostringstream bytes;
            if (e.is_regular_file())
                bytes << std::ifstream(e.path(), std::ios::binary).rdbuf();
            contents[e.path().string()] = bytes.str();
        }
    }
    return contents;
}

StoreCheck::Report Check(const Storage& s) {
    return StoreCheck({s.TracksDir(), s.DbDir(), s.PoolDir()}).Run();
}

// Problems whose text holds `fragment`.
int Count(const StoreCheck::Report& report, const std::string& fragment) {
    return static_cast<int>(std::count_if(
        report.problems.begin(), report.problems.end(),
        [&](const StoreCheck::Problem& p) { return p.what.find(fragment) != std::string::npos; }));
}

std::string Problems(const StoreCheck::Report& report) {
    std::string text;
    for (const StoreCheck::Problem& p : report.problems)
        text += p.what + " -> " + p.repair + "\n";
    return text;
}

void CreateTrack(Storage& s, long id, long files) {
    Protocol::TrackParameters in, out;
    in.set_id(id);
    in.set_size(files * Storage::kFileSize);
    s.Tracks().CreateTrack(in, out);
    ASSERT_EQ(id, out.id());
}

void Record(Storage& s, long track, int chunks) {
    std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s.Writers().Create(track));
    for (int64_t i = 0; i < chunks; ++i)
        writer->Append(TrackChunk(track, (100 + i) * kSecond, kSecond, 5000));
}

std::string TheFileOf(const Storage& s, long track) {
    for (const fs::directory_entry& e :
         fs::directory_iterator(fs::path(s.TracksDir()) / std::to_string(track)))
        return e.path().string();
    return "";
}

}  // namespace

TEST(StoreCheck, ReportsEachDamageWithoutChangingAByteAndStartUpRepairsWhatItOwns) {
    Storage s(8);
    CreateTrack(s, 1, 2);
    CreateTrack(s, 2, 1);
    CreateTrack(s, 3, 1);
    Record(s, 1, 20);
    s.Stop();
    ASSERT_TRUE(Check(s).Clean()) << Problems(Check(s));

    // Damage by hand between a stop and a start.
    const std::string strayed = TheFileOf(s, 2);
    const std::string strayedName = fs::path(strayed).filename().string();
    fs::rename(strayed, fs::path(s.PoolDir()) / strayedName);
    for (const char* side : {"", "-wal", "-shm"})
        fs::remove(fs::path(s.DbDir()) / (std::string("3.db") + side));
    fs::create_directory(fs::path(s.TracksDir()) / "007");
    fs::create_directory(fs::path(s.TracksDir()) / "-3");
    std::ofstream(fs::path(s.PoolDir()) / "00000099") << "not the store's";
    std::string truncated;
    for (const fs::directory_entry& e : fs::directory_iterator(s.PoolDir()))
        if (e.path().filename() != strayedName && e.path().filename() != "00000099")
            truncated = e.path().string();
    fs::resize_file(truncated, Storage::kFileSize / 2);

    const auto before = Contents(s);
    const StoreCheck::Report report = Check(s);
    EXPECT_EQ(before, Contents(s)) << "the check changed the store";
    EXPECT_EQ(3u, report.tracks);
    EXPECT_EQ(20u, report.chunks);
    EXPECT_EQ(1, Count(report, "is in the pool directory " + s.PoolDir() +
                                   " but pool.db places it in the directory of track 2"))
        << Problems(report);
    EXPECT_EQ(1, Count(report, "track 3 has a directory but no database")) << Problems(report);
    EXPECT_EQ(1, Count(report, "is lent to track 3 but its database does not list it"))
        << Problems(report);
    EXPECT_EQ(1, Count(report, "007 is not a track directory name")) << Problems(report);
    EXPECT_EQ(1, Count(report, "-3 is not a track directory name")) << Problems(report);
    EXPECT_EQ(1, Count(report, "00000099 is not in pool.db")) << Problems(report);
    EXPECT_EQ(1, Count(report, "has " + std::to_string(Storage::kFileSize / 2) + " bytes"))
        << Problems(report);
    EXPECT_EQ(7u, report.problems.size()) << Problems(report);

    {
        tav::mr::logging::LogCapture log("LoopRecordingFactory");
        s.Start();
        EXPECT_EQ(40, log.LevelOf(strayedName + " moved to"));
        EXPECT_EQ(50, log.LevelOf("T3: file"));
        EXPECT_EQ(50, log.LevelOf("bytes while the pool's files have"));
    }
    EXPECT_TRUE(fs::exists(fs::path(s.TracksDir()) / "2" / strayedName));
    EXPECT_EQ(Storage::kFileSize, s.Factory().GetManagers().GetManager(3)->GetMaxTrackSize());
    // The truncated file is never lent: asked for the four free files, the
    // pool gives the three good ones.
    Protocol::TrackParameters in, out;
    in.set_id(4);
    in.set_size(4 * Storage::kFileSize);
    s.Tracks().CreateTrack(in, out);
    EXPECT_TRUE(fs::exists(truncated));
    EXPECT_EQ(3 * Storage::kFileSize, s.Factory().GetManagers().GetManager(4)->GetMaxTrackSize());
    Protocol::TrackParameters deleted;
    s.Tracks().DeleteTrack(4, deleted);
    s.Stop();

    // What the store does not own is still there; its own damage is gone.
    EXPECT_TRUE(fs::exists(fs::path(s.TracksDir()) / "007"));
    EXPECT_TRUE(fs::exists(fs::path(s.TracksDir()) / "-3"));
    EXPECT_TRUE(fs::exists(fs::path(s.PoolDir()) / "00000099"));
    const StoreCheck::Report after = Check(s);
    EXPECT_EQ(4u, after.problems.size()) << Problems(after);
    EXPECT_EQ(0, Count(after, "track 3")) << Problems(after);
    EXPECT_EQ(0, Count(after, "places it in")) << Problems(after);
}

TEST(StoreCheck, AMissingPoolDirectoryIsAnErrorAtStartUpAndInTheCheck) {
    Storage s(4);
    CreateTrack(s, 1, 1);
    s.Stop();
    fs::rename(s.PoolDir(), s.Dir() / "elsewhere");
    const StoreCheck::Report report = Check(s);
    EXPECT_EQ(1, Count(report, "pool directory " + s.PoolDir() + " is missing"))
        << Problems(report);
    tav::mr::logging::LogCapture log("LoopRecordingFactory");
    s.Start();
    EXPECT_EQ(50, log.LevelOf("Pool directory " + s.PoolDir() + " is missing"));
}

TEST(StoreCheck, UnreadableStoreCannotBeChecked) {
    Storage s(2, false);
    EXPECT_THROW(Check(s), std::runtime_error);
}

// After a cut anywhere in a move between pool and track, the check changes
// nothing, and one start repairs all that it reports.
TEST(StoreCheck, AStoreLeftByAPowerCutIsCheckedUnchangedAndOneStartRepairsIt) {
    for (uint64_t k = 3; k <= 60; k += 3) {
        SCOPED_TRACE("cut at effect " + std::to_string(k));
        Storage s(6);
        CreateTrack(s, 1, 1);
        s.Stop();
        PowerCutHarness harness(s.Dir().Path());
        harness.Run([&](FaultInjectionEnv& env) {
            env.KillAt(k);
            s.Start();
            Protocol::TrackParameters grow, answer;
            grow.set_id(1);
            grow.set_size(2 * Storage::kFileSize);
            s.Tracks().GrowTrack(grow, answer);
            CreateTrack(s, 2, 2);
            s.Tracks().DeleteTrack(1, answer);
        });
        harness.Cut(CutMode::kRandom, k);
        const auto before = Contents(s);
        Check(s);
        EXPECT_EQ(before, Contents(s)) << "the check changed the store";
        s.Start();
        ExpectFilesConserved(s);
        s.Stop();
        const StoreCheck::Report after = Check(s);
        EXPECT_TRUE(after.Clean()) << Problems(after);
    }
}
