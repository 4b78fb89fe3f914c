#include "Host/Hls/LivePlaylist.h"

#include "Host/Hls/PlaylistWriter.h"
#include "Platform/Tools/MutexLock.h"

namespace loopstore::hls {

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

}  // namespace

Protocol::ChunkSpans LivePlaylist::Window(const Protocol::ChunkSpans& tail,
                                          int64_t targetDuration) {
    const int64_t wanted = kWindowTargets * targetDuration * kNsPerSecond;
    int first = tail.chunks_size();
    int64_t lasting = 0;
    while (first > 0 && lasting < wanted)
        lasting += tail.chunks(--first).duration().nanoseconds();
    Protocol::ChunkSpans window;
    for (int i = first; i < tail.chunks_size(); ++i)
        *window.add_chunks() = tail.chunks(i);
    return window;
}

std::string LivePlaylist::Write(long trackId, const Protocol::ChunkSpans& tail) {
    const int64_t target = PlaylistWriter::TargetDuration(tail);
    const Protocol::ChunkSpans window = Window(tail, target);
    return PlaylistWriter::Live(window, Number(trackId, window), target);
}

uint64_t LivePlaylist::Number(long trackId, const Protocol::ChunkSpans& window) {
    Moreld::Tools::MutexLock lock(mutex_);
    std::map<uint64_t, uint64_t>& known = numbers_[trackId];
    uint64_t number = 0;
    const auto seen = known.find(window.chunks(0).sequence());
    if (seen != known.end())
        number = seen->second;
    else if (!known.empty())
        // Whatever lay between the last window and this one (or a renumbered
        // track) cannot be joined to what the player holds.
        number = known.rbegin()->second + 1;
    const uint64_t first = number;
    known.clear();
    for (int i = 0; i < window.chunks_size(); ++i) {
        if (i > 0 && !PlaylistWriter::Continues(window.chunks(i - 1), window.chunks(i)))
            ++number;
        known[window.chunks(i).sequence()] = number;
    }
    return first;
}

}  // namespace loopstore::hls
