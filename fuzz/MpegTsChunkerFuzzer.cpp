// Cuts a fuzzed byte stream as `loopstore record` cuts MPEG-TS. Settings come
// first: the size limit (2 bytes), the nominal duration in ms (1 byte) and the
// size of the pieces the stream is fed in (1 byte); the rest is the stream.
// Every chunk must be whole packets within the size limit with a positive
// duration, and every byte must be either in a chunk or counted as skipped.

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "Host/Cli/MpegTsChunker.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/FuzzInput.h"

namespace {

using loopstore::cli::MpegTsChunker;
using loopstore::cli::SourceChunk;
using Moreld::Time::TimePoint;

constexpr uint64_t kPacket = MpegTsChunker::kPacketSize;
// The largest step of the clock that still counts as time passing.
constexpr int64_t kMaxPcrStepNs = 10'000'000'000;

uint64_t CheckChunks(MpegTsChunker& chunker, uint64_t maxSize, TimePoint nominal) {
    uint64_t bytes = 0;
    for (const SourceChunk& chunk : chunker.Ready()) {
        FUZZ_CHECK(!chunk.payload.empty());
        FUZZ_CHECK(chunk.payload.size() <= maxSize);
        FUZZ_CHECK(chunk.payload.size() % kPacket == 0);
        for (size_t at = 0; at < chunk.payload.size(); at += kPacket)
            FUZZ_CHECK(chunk.payload[at] == MpegTsChunker::kSyncByte);
        FUZZ_CHECK(chunk.duration > TimePoint());
        FUZZ_CHECK(chunk.duration <= std::max(nominal, TimePoint::FromNanoseconds(kMaxPcrStepNs)));
        bytes += chunk.payload.size();
    }
    chunker.Ready().clear();
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    loopstore::fuzz::FuzzInput in(data, size);
    const uint64_t maxSize = in.Byte() | uint64_t{in.Byte()} << 8;
    const TimePoint nominal = TimePoint::FromMilliseconds(1 + in.Byte());
    const size_t piece = 1 + in.Byte() * 4;
    const std::string_view stream = in.Rest();
    MpegTsChunker::LooksLikeMpegTs(stream);

    MpegTsChunker chunker(nominal, maxSize);
    const uint64_t limit = std::max(kPacket, maxSize - maxSize % kPacket);
    uint64_t bytes = 0;
    for (size_t at = 0; at < stream.size(); at += piece) {
        chunker.Feed(stream.substr(at, piece));
        bytes += CheckChunks(chunker, limit, nominal);
    }
    chunker.Finish();
    bytes += CheckChunks(chunker, limit, nominal);
    FUZZ_CHECK(bytes + chunker.SkippedBytes() == stream.size());
    return 0;
}
