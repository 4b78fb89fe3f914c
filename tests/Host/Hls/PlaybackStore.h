#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Host/Http/HttpRouter.h"
#include "Platform/Services/Service.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"

namespace loopstore::test {

// A real store with one track, seen by the HLS routes through a service of
// their own: its reader factory is the store's, its timeline a stand-in
// that walks the track with a reader (the store's own may be missing).
class PlaybackStore {
  public:
    static constexpr long kTrack = 1;

    // `withTimeline` false leaves the timeline slot empty.
    explicit PlaybackStore(bool withTimeline = true);
    ~PlaybackStore();

    // Stores one chunk of `bytes` at `start` lasting `duration` (ns).
    void Append(int64_t start, int64_t duration, const std::string& bytes);

    // GET `target` ("/path?a=1&b=2") through the routes.
    host::HttpResponse Get(const std::string& target) const;

    Storage& Store() { return storage_; }

  private:
    Storage storage_;
    MoreldStorageApi::Service service_;
    host::HttpRouter router_;
    std::unique_ptr<MoreldStorageApi::ITrackWriter> writer_;
};

// Runs `command` with sh; its exit status.
int RunShell(const std::string& command);
bool HasProgram(const std::string& name);
// The whole content of a file.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

}  // namespace loopstore::test
