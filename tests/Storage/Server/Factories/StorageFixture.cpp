#include "tests/Storage/Server/Factories/StorageFixture.h"

#include <cstdio>
#include <filesystem>

namespace loopstore::test {

namespace {

int CountFiles(const std::filesystem::path& dir, bool recursive) {
    int n = 0;
    if (!std::filesystem::exists(dir))
        return 0;
    if (recursive) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
            n += entry.is_regular_file();
        }
    } else {
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            n += entry.is_regular_file();
        }
    }
    return n;
}

}  // namespace

Storage::Storage(int poolFiles, bool start) : poolFiles_(poolFiles) {
    std::filesystem::create_directories(TracksDir());
    std::filesystem::create_directories(DbDir());
    std::filesystem::create_directories(PoolDir());
    for (int i = 1; i <= poolFiles; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%08d", i);
        CreatePreallocatedFile(PoolDir() + "/" + name, kFileSize);
    }
    if (start)
        Start();
}

Storage::~Storage() {
    Stop();
}

long Storage::CreateTrack(long id, long files) {
    Protocol::TrackParameters in, out;
    in.set_id(id);
    in.set_size(files * kFileSize);
    Tracks().CreateTrack(in, out);
    return out.id();
}

void Storage::Start() {
    factory_ =
        std::make_unique<LoopRecordingFileFactory>(LoopRecordingFileFactory::FactoryParameters{
            TracksDir(), DbDir(), PoolDir(), clock_, upkeepInterval_});
    service_.reset(factory_->Construct({"storage", "test client"}));
}

void Storage::Stop() {
    service_.reset();
    factory_.reset();
}

int Storage::FilesInPool() const {
    return CountFiles(PoolDir(), false);
}
int Storage::FilesInTracks() const {
    return CountFiles(TracksDir(), true);
}

}  // namespace loopstore::test
