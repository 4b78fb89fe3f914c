#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "Platform/Logging/LogCapture.h"
#include "Platform/Tools/SyncPoint.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Support/OpenFiles.h"
#include "tests/Support/ProtocolBuilders.h"
#include "tests/Support/SyncPoints.h"
#include "tests/Support/TestTime.h"

using loopstore::test::At;
using loopstore::test::kSecond;
using loopstore::test::OpenFilesUnder;
using loopstore::test::PropertyListOf;
using loopstore::test::Storage;
using tav::mr::logging::LogCapture;

namespace {

constexpr long kFile = static_cast<long>(Storage::kFileSize);

Protocol::TrackParameters Params(long id, long size) {
    Protocol::TrackParameters p;
    p.set_id(id);
    p.set_size(size);
    return p;
}

std::map<std::string, std::string> PropsOf(Storage& s, long track) {
    Protocol::PropertyList list;
    s.Tracks().GetTrackProperties(track, list);
    std::map<std::string, std::string> out;
    for (const auto& p : list.properties())
        out[p.key()] = p.value();
    return out;
}

// Writes `count` chunks of `payload` bytes, one per second from `start`.
void Record(Storage& s, long track, int64_t start, int count, size_t payload = 20000) {
    std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s.Writers().Create(track));
    for (int i = 0; i < count; ++i) {
        Protocol::Chunk chunk;
        *chunk.mutable_timepoint() = At(start + i * kSecond);
        *chunk.mutable_duration() = At(kSecond);
        chunk.set_data(std::string(payload, static_cast<char>('a' + i % 26)));
        writer->Append(chunk);
    }
}

int64_t Beginning(Storage& s, long track) {
    Protocol::TimePoint tp;
    s.Tracks().GetBeginningOfTrack(track, tp);
    return tp.nanoseconds();
}

int64_t End(Storage& s, long track) {
    Protocol::TimePoint tp;
    s.Tracks().GetEndOfTrack(track, tp);
    return tp.nanoseconds();
}

long Remaining(Storage& s) {
    long bytes = 0;
    s.Tracks().GetRemainingSpace(bytes);
    return bytes;
}

long TrackSize(Storage& s, long track) {
    long size = 0;
    s.Tracks().GetTrackSize(track, size);
    return size;
}

// Every file is in exactly one place: free in the pool or owned by a track.
void ExpectFilesConserved(Storage& s) {
    EXPECT_EQ(s.FilesInPool() + s.FilesInTracks(), s.PoolFiles());
    Protocol::TrackList tracks;
    s.Tracks().ListTracks(tracks);
    long owned = 0;
    for (long id : tracks.ids())
        owned += TrackSize(s, id);
    EXPECT_EQ(Remaining(s) + owned, s.PoolFiles() * kFile);
    EXPECT_EQ(s.FilesInPool(), Remaining(s) / kFile);
    EXPECT_TRUE(s.Factory().GetPool()->IsStateCoherent());
}

}  // namespace

// Each client request may construct a service of its own; the readers of a
// track share its open files all the same, and close them with the last one.
TEST(TrackStorageService, ReadersOfOneTrackShareItsFilesAcrossServices) {
    Storage s(4);
    const long track = s.CreateTrack(1, 2);
    Record(s, track, 0, 6);
    s.Restart();  // the chunks are now read from their files
    std::unique_ptr<MoreldStorageApi::Service> other(s.Factory().Construct({"storage", "other"}));
    std::unique_ptr<MoreldStorageApi::ITrackReader> first(s.Readers().Create(track));
    std::unique_ptr<MoreldStorageApi::ITrackReader> second(
        other->trackReaderFactory->Create(track));
    for (MoreldStorageApi::ITrackReader* reader : {first.get(), second.get()}) {
        Protocol::Chunk out;
        bool found = false;
        reader->GetChunk(At(2 * kSecond), Protocol::KeyList(), out, found);
        ASSERT_TRUE(found);
        EXPECT_EQ(out.data(), std::string(20000, 'c'));
    }
    EXPECT_EQ(OpenFilesUnder(s.TracksDir()), 1);
    first.reset();
    second.reset();
    EXPECT_EQ(OpenFilesUnder(s.TracksDir()), 0);
}

TEST(TrackStorageService, TracksLiveLoopAndDie) {
    Storage s(20);
    EXPECT_EQ(Remaining(s), 20 * kFile);

    // Creation: id 0 picks the next id; sizes round up to whole files.
    Protocol::TrackParameters answer;
    EXPECT_EQ(s.Tracks().CreateTrack(Params(0, 3 * kFile + 1), answer), 1);
    EXPECT_EQ(answer.id(), 1);
    EXPECT_EQ(answer.size(), 4 * kFile);
    EXPECT_EQ(answer.status(), 1);
    EXPECT_EQ(s.Tracks().CreateTrack(Params(7, 2 * kFile), answer), 1);
    EXPECT_EQ(s.Tracks().CreateTrack(Params(0, kFile), answer), 1);
    EXPECT_EQ(answer.id(), 8);
    EXPECT_EQ(Remaining(s), 13 * kFile);
    ExpectFilesConserved(s);

    // Grow and shrink by signed changes.
    s.Tracks().GrowTrack(Params(7, kFile), answer);
    EXPECT_EQ(answer.size(), 3 * kFile);
    s.Tracks().GrowTrack(Params(7, 0), answer);
    EXPECT_EQ(answer.size(), 3 * kFile);
    s.Tracks().GrowTrack(Params(7, -2 * kFile), answer);
    EXPECT_EQ(answer.size(), kFile);
    EXPECT_EQ(TrackSize(s, 7), kFile);
    ExpectFilesConserved(s);

    // Write past the size of track 1 (4 files of 3 chunks): it loops.
    Record(s, 1, 100 * kSecond, 30);
    EXPECT_EQ(End(s, 1), 130 * kSecond);
    EXPECT_EQ(Beginning(s, 1), 118 * kSecond);  // the 12 newest chunks remain
    Protocol::TimePoint from = At(100 * kSecond), to = At(200 * kSecond), duration;
    long count = 0;
    s.Tracks().GetNumberOfChunks(1, from, to, count);
    EXPECT_EQ(count, 12);
    s.Tracks().GetAccumulatedDuration(1, from, to, duration);
    EXPECT_EQ(duration.nanoseconds(), 12 * kSecond);

    // A protected range survives recycling.
    long protection = 0;
    s.Tracks().Protect(1, At(118 * kSecond), At(kSecond), protection);
    EXPECT_EQ(protection, 1);
    Record(s, 1, 130 * kSecond, 20);
    EXPECT_EQ(Beginning(s, 1), 118 * kSecond);  // oldest chunk kept
    std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s.Readers().Create(1));
    Protocol::Chunk chunk;
    bool found = false;
    reader->GetChunk(At(118 * kSecond + 1), Protocol::KeyList(), chunk, found);
    EXPECT_TRUE(found);
    EXPECT_EQ(chunk.timepoint().nanoseconds(), 118 * kSecond);
    EXPECT_EQ(chunk.data().size(), 20000u);
    reader->GetChunk(At(121 * kSecond), Protocol::KeyList(), chunk, found);
    EXPECT_FALSE(found);  // recycled: not protected
    reader.reset();
    Protocol::ProtectionInfos protections;
    s.Tracks().ListProtections(protections);
    ASSERT_EQ(protections.infos_size(), 1);
    EXPECT_EQ(protections.infos(0).track_id(), 1);
    EXPECT_EQ(protections.infos(0).end().nanoseconds(), 119 * kSecond);
    s.Tracks().Unprotect(protection);
    s.Tracks().Unprotect(999);  // unknown: only logged
    Record(s, 1, 150 * kSecond, 3);
    EXPECT_GT(Beginning(s, 1), 118 * kSecond);

    // Properties.
    s.Tracks().SetTrackProperties(1, PropertyListOf({{"name", "door"}, {"site", "north"}}));
    s.Tracks().SetTrackProperties(1, PropertyListOf({{"name", "gate"}}));
    EXPECT_EQ(PropsOf(s, 1),
              (std::map<std::string, std::string>{{"name", "gate"}, {"site", "north"}}));
    s.Tracks().RemoveTrackProperties(1, PropertyListOf({{"site", ""}, {"nope", ""}}));
    EXPECT_EQ(PropsOf(s, 1), (std::map<std::string, std::string>{{"name", "gate"}}));
    s.Tracks().SetTrackProperties(1, PropertyListOf({{"a", "1"}, {"b", "2"}}));
    s.Tracks().RemoveTrackProperties(1, PropertyListOf({{"__tav_all__", ""}}));
    EXPECT_TRUE(PropsOf(s, 1).empty());
    EXPECT_THROW(s.Tracks().SetTrackProperties(99, PropertyListOf({{"a", "1"}})),
                 std::runtime_error);

    // Track infos and workers.
    Protocol::Ids ids;
    ids.add_ids(1);
    ids.add_ids(42);
    Protocol::TrackInfos infos;
    s.Tracks().GetTrackInfos(ids, infos);
    ASSERT_EQ(infos.infos_size(), 1);
    EXPECT_EQ(infos.infos(0).track_size(), 4u * kFile);
    EXPECT_EQ(infos.infos(0).end().nanoseconds(), 153 * kSecond);
    {
        std::unique_ptr<MoreldStorageApi::ITrackReader> r(s.Readers().Create(7));
        Protocol::Ids workers, tracks;
        s.Tracks().GetActiveWorkers(workers, tracks);
        ASSERT_EQ(workers.ids_size(), 1);
        EXPECT_EQ(tracks.ids(0), 7);
        Protocol::WorkerInfos workerInfos;
        s.Tracks().GetWorkerInfos(workers, workerInfos);
        EXPECT_EQ(workerInfos.infos(0).description(), "test client");
    }

    // Clear keeps the files; delete gives them back.
    s.Tracks().ClearTrack(1);
    EXPECT_EQ(Beginning(s, 1), -1);
    EXPECT_EQ(TrackSize(s, 1), 4 * kFile);
    s.Tracks().DeleteTrack(1, answer);
    Protocol::TrackList list;
    s.Tracks().ListTracks(list);
    EXPECT_EQ(std::vector<long>(list.ids().begin(), list.ids().end()), (std::vector<long>{7, 8}));
    EXPECT_EQ(Beginning(s, 1), -1);
    EXPECT_EQ(End(s, 1), -1);
    ExpectFilesConserved(s);
    Protocol::Ids none;
    s.Tracks().GetOngoingCommands(none);
    EXPECT_EQ(none.ids_size(), 0);
}

TEST(TrackStorageService, DeletingAProtectedTrackKeepsOnlyItsProtectedFiles) {
    Storage s(10);
    Protocol::TrackParameters answer;
    s.Tracks().CreateTrack(Params(3, 4 * kFile), answer);
    Record(s, 3, 0, 12);  // 4 full files
    long protection = 0;
    s.Tracks().Protect(3, At(3 * kSecond), At(kSecond), protection);  // file 2
    s.Tracks().DeleteTrack(3, answer);
    EXPECT_EQ(answer.size(), kFile);
    EXPECT_EQ(TrackSize(s, 3), kFile);
    ExpectFilesConserved(s);
    s.Tracks().Unprotect(protection);
    s.Tracks().DeleteTrack(3, answer);
    EXPECT_EQ(TrackSize(s, 3), 0);
    EXPECT_EQ(Remaining(s), 10 * kFile);
    ExpectFilesConserved(s);
}

TEST(TrackStorageService, RefusalsChangeNothing) {
    Storage s(6);
    Protocol::TrackParameters answer;
    EXPECT_EQ(s.Tracks().CreateTrack(Params(1, 0), answer), -1);
    EXPECT_EQ(answer.id(), 0);
    EXPECT_THROW(s.Tracks().CreateTrack(Params(1, 7 * kFile), answer), std::runtime_error);
    Protocol::TrackList list;
    s.Tracks().ListTracks(list);
    EXPECT_EQ(list.ids_size(), 0);
    EXPECT_EQ(s.FilesInPool(), 6);

    s.Tracks().CreateTrack(Params(1, 2 * kFile), answer);
    EXPECT_THROW(s.Tracks().CreateTrack(Params(1, kFile), answer), std::runtime_error);
    EXPECT_THROW(s.Tracks().GrowTrack(Params(5, kFile), answer), std::runtime_error);
    EXPECT_THROW(s.Writers().Create(5), std::runtime_error);
    EXPECT_THROW(s.Readers().Create(5), std::runtime_error);
    EXPECT_EQ(TrackSize(s, 5), 0);
    EXPECT_FALSE(s.Factory().GetManagers().Exists(5));
    s.Tracks().ClearTrack(5);  // nothing happens

    {
        std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s.Writers().Create(1));
        EXPECT_THROW(s.Writers().Create(1), std::runtime_error);  // one writer per track
        EXPECT_THROW(s.Tracks().DeleteTrack(1, answer), std::runtime_error);
    }
    {
        std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s.Readers().Create(1));
        EXPECT_THROW(s.Tracks().DeleteTrack(1, answer), std::runtime_error);
    }
    EXPECT_EQ(TrackSize(s, 1), 2 * kFile);
    ExpectFilesConserved(s);
}

TEST(TrackStorageService, ARestartFindsEverythingAsItWas) {
    Storage s(12);
    Protocol::TrackParameters answer;
    s.Tracks().CreateTrack(Params(2, 4 * kFile), answer);
    s.Tracks().CreateTrack(Params(5, 2 * kFile), answer);
    Record(s, 2, 0, 9);
    long first = 0, second = 0;
    s.Tracks().Protect(2, At(0), At(kSecond), first);
    s.Tracks().Protect(2, At(4 * kSecond), At(kSecond), second);
    s.Tracks().SetTrackProperties(5, PropertyListOf({{"codec", "h264"}}));
    const long remaining = Remaining(s);

    s.Restart();
    Protocol::TrackList list;
    s.Tracks().ListTracks(list);
    EXPECT_EQ(list.ids_size(), 2);
    EXPECT_EQ(Remaining(s), remaining);
    EXPECT_EQ(TrackSize(s, 2), 4 * kFile);
    EXPECT_EQ(Beginning(s, 2), 0);
    EXPECT_EQ(End(s, 2), 9 * kSecond);
    EXPECT_EQ(PropsOf(s, 5), (std::map<std::string, std::string>{{"codec", "h264"}}));
    Protocol::ProtectionInfos protections;
    s.Tracks().ListProtections(protections);
    EXPECT_EQ(protections.infos_size(), 2);
    long third = 0;
    s.Tracks().Protect(2, At(7 * kSecond), At(kSecond), third);
    EXPECT_EQ(third, second + 1);  // ids continue
    std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s.Readers().Create(2));
    Protocol::Chunk chunk;
    bool found = false;
    reader->GetChunk(At(8 * kSecond), Protocol::KeyList(), chunk, found);
    EXPECT_TRUE(found);
    EXPECT_EQ(chunk.data(), std::string(20000, 'i'));
    reader.reset();
    ExpectFilesConserved(s);
}

TEST(TrackStorageService, InterruptedMovesAreFinishedAtTheNextStart) {
    Storage s(12);
    Protocol::TrackParameters answer;
    // A creation stopped after two of four files: the move is left open.
    s.Factory().GetPool()->StopMovingFiles(2);
    EXPECT_EQ(s.Tracks().CreateTrack(Params(4, 4 * kFile), answer), 1);
    s.Restart();
    EXPECT_EQ(TrackSize(s, 4), 4 * kFile);
    ExpectFilesConserved(s);

    // A shrink stopped after one of two files.
    Record(s, 4, 0, 3);
    s.Factory().GetPool()->StopMovingFiles(1);
    s.Tracks().GrowTrack(Params(4, -2 * kFile), answer);
    s.Restart();
    EXPECT_EQ(TrackSize(s, 4), 2 * kFile);
    ExpectFilesConserved(s);

    // A deletion stopped midway: the next start finishes it.
    s.Tracks().SetTrackProperties(4, PropertyListOf({{"k", "v"}}));
    s.Factory().GetPool()->StopMovingFiles(1);
    s.Tracks().DeleteTrack(4, answer);
    LogCapture log("LoopRecordingFactory");
    s.Restart();
    EXPECT_TRUE(log.Contains("T4: Destroyed during recovery procedure."));
    Protocol::TrackList list;
    s.Tracks().ListTracks(list);
    EXPECT_EQ(list.ids_size(), 0);
    EXPECT_TRUE(PropsOf(s, 4).empty());
    EXPECT_EQ(Remaining(s), 12 * kFile);
    ExpectFilesConserved(s);
}

TEST(TrackStorageService, ProtectionsCarryTermsAndExpireWhileOpenAndAtTheNextStart) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    std::atomic<int64_t> now{100 * kSecond};
    auto clock = [&now] { return Moreld::Time::TimePoint::FromNanoseconds(now.load()); };
    // The sweeps run every millisecond; the test counts them to know when
    // one has looked at the clock after it was moved.
    std::mutex mutex;
    std::condition_variable swept;
    int sweeps = 0;
    auto& sync = Moreld::Tools::SyncPoint::Instance();
    struct ClearSyncPoints {
        ~ClearSyncPoints() { Moreld::Tools::SyncPoint::Instance().ClearAll(); }
    } clearSyncPoints;  // after the store's sweeps stop, before the counters go
    Storage s(8, false);
    sync.SetCallback("PeriodicThread::Loop:Ran", [&] {
        std::lock_guard<std::mutex> lock(mutex);
        ++sweeps;
        swept.notify_all();
    });
    auto waitTwoSweeps = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        const int target = sweeps + 2;
        swept.wait(lock, [&] { return sweeps >= target; });
    };
    s.SetUpkeep(clock, std::chrono::milliseconds(1));
    s.Start();
    s.CreateTrack(1, 3);
    Record(s, 1, 0, 9);  // three chunks a file

    Protocol::ProtectionTerms door;
    door.set_label("door");
    *door.mutable_expires() = At(200 * kSecond);
    long first = 0, second = 0;
    s.Tracks().ProtectWithTerms(1, At(0), At(kSecond), door, first);
    Protocol::ProtectionTerms late;
    *late.mutable_expires() = At(100 * kSecond);  // now: already due
    long refused = 0;
    try {
        s.Tracks().ProtectWithTerms(1, At(3 * kSecond), At(kSecond), late, refused);
        ADD_FAILURE() << "an expiry in the past was taken";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("T1: Protection expiry"), std::string::npos);
    }
    *late.mutable_expires() = At(300 * kSecond);
    s.Tracks().ProtectWithTerms(1, At(3 * kSecond), At(kSecond), late, second);
    EXPECT_EQ(second, first + 1);  // the refusal issued no id

    Protocol::ProtectionInfos infos;
    s.Tracks().ListProtections(infos);
    ASSERT_EQ(infos.infos_size(), 2);
    EXPECT_EQ(infos.infos(0).label(), "door");
    EXPECT_EQ(infos.infos(0).expires().nanoseconds(), 200 * kSecond);
    EXPECT_EQ(infos.infos(1).label(), "");
    EXPECT_EQ(infos.infos(1).expires().nanoseconds(), 300 * kSecond);

    // Due while the store is open: lifted from the index too.
    now = 250 * kSecond;
    waitTwoSweeps();
    s.Tracks().ListProtections(infos);
    ASSERT_EQ(infos.infos_size(), 1);
    EXPECT_EQ(infos.infos(0).protection_id(), second);
    EXPECT_EQ(s.Factory().GetManagers().GetManager(1)->GetProtections().count(first), 0u);
    EXPECT_EQ(Beginning(s, 1), 0);  // the first file is back in the loop

    // Due while the store was closed: lifted as it opens, before any sweep.
    s.Stop();
    sync.ClearAll();
    now = 400 * kSecond;
    s.SetUpkeep(clock, std::chrono::hours(1));
    s.Start();
    s.Tracks().ListProtections(infos);
    EXPECT_EQ(infos.infos_size(), 0);
    EXPECT_TRUE(s.Factory().GetManagers().GetManager(1)->GetProtections().empty());
}
