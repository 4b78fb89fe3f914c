#include "tests/Storage/Server/Factories/StoreAudit.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace loopstore::test {

namespace {

namespace fs = std::filesystem;

// File number -> the directories (0: pool, else the track) holding it.
std::map<long, std::vector<long>> FilesOnDisk(Storage& storage) {
    std::map<long, std::vector<long>> found;
    for (const auto& entry : fs::directory_iterator(storage.PoolDir()))
        found[std::stol(entry.path().filename().string())].push_back(0);
    for (const auto& track : fs::directory_iterator(storage.TracksDir())) {
        const long id = std::stol(track.path().filename().string());
        for (const auto& entry : fs::directory_iterator(track.path()))
            found[std::stol(entry.path().filename().string())].push_back(id);
    }
    return found;
}

}  // namespace

void ExpectFilesConserved(Storage& storage) {
    const std::map<long, std::vector<long>> disk = FilesOnDisk(storage);
    EXPECT_EQ(static_cast<int>(disk.size()), storage.PoolFiles());
    for (const auto& [number, places] : disk)
        EXPECT_EQ(places.size(), 1u) << "file " << number << " is on disk more than once";

    FilesPool& pool = *storage.Factory().GetPool();
    EXPECT_TRUE(pool.IsStateCoherent());
    uint64_t lent = 0;
    for (long track : storage.Factory().GetManagers().GetTrackIds()) {
        LoopRecordingFileManager& manager = *storage.Factory().GetManagers().GetManager(track);
        const std::vector<ChunkFile> files = pool.GetMovedFiles(track);
        lent += files.size();
        EXPECT_EQ(manager.GetMaxTrackSize(), files.size() * Storage::kFileSize)
            << "track " << track << " does not own exactly the files lent to it";
        for (const ChunkFile& file : files) {
            EXPECT_TRUE(manager.HasFile(file)) << "track " << track << " lacks " << file;
            const auto where = disk.find(file.GetFileNumber());
            ASSERT_NE(where, disk.end()) << file << " is missing";
            EXPECT_EQ(where->second.front(), track) << file << " is not in its track";
        }
    }
    EXPECT_EQ(lent, pool.GetNbMovedFiles());
    EXPECT_EQ(pool.GetRemainingSpace(), (storage.PoolFiles() - lent) * Storage::kFileSize);
}

}  // namespace loopstore::test
