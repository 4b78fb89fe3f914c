#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Host/Cli/IChunkSource.h"
#include "Host/Http/HttpRouter.h"
#include "Platform/Services/Service.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Support/TempDir.h"

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
    // Stores `chunks` one after the other from `start`, with a pause of
    // `pause` ns before chunk `pauseBefore`; their time points.
    std::vector<int64_t> Record(const std::vector<cli::SourceChunk>& chunks, int64_t start,
                                size_t pauseBefore, int64_t pause);

    // GET `target` ("/path?a=1&b=2") through the routes.
    host::HttpResponse Get(const std::string& target) const;

    Storage& Store() { return storage_; }

  private:
    Storage storage_;
    MoreldStorageApi::Service service_;
    host::HttpRouter router_;
    std::unique_ptr<MoreldStorageApi::ITrackWriter> writer_;
};

// A camera's stream made by ffmpeg, 25 frames a second with a key frame
// every `gop`, cut for recording into chunks of at least a second. Its
// clock (PCR) runs with the frames' decoding times (no mux delay), so that
// a frame is shown about when the chunk's time says.
std::vector<cli::SourceChunk> CameraChunks(const TempDir& dir, int seconds, int gop = 25);
// The value of the response's header `name`, or "".
std::string Header(const host::HttpResponse& response, const std::string& name);
// Runs `command` with sh; its exit status.
int RunShell(const std::string& command);
bool HasProgram(const std::string& name);
// The whole content of a file.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

}  // namespace loopstore::test
