#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "Host/Cli/IChunkSource.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// Cuts an MPEG transport stream into chunks made of whole 188-byte packets.
//
// Chunks are paced by the stream's program clock (PCR) when it has one: a
// chunk ends at the first PCR packet that lies at least `targetDuration`
// after the chunk's start (or once it holds `maxSize` bytes), and its
// duration is the PCR difference, so that stored time follows media time.
// A stream that marks its key frames (the random access indicator of the
// packet that starts one on the PCR stream, as ffmpeg's muxer sets it) is
// cut instead at the first key frame once the chunk is that long, so that
// each chunk plays on its own; the chunk then lasts until the PCR of the
// key frame's packet, or the last PCR before it. Key frames are awaited for
// at most 10 s of clock; then the clock paces the cuts again until the next
// mark.
// Without a PCR, chunks are cut every `maxSize` bytes with the nominal
// duration. A PCR that jumps back or more than 10 s ahead is a discontinuity:
// the chunk before it gets the nominal duration.
//
// No chunk is ever larger than `maxSize` (rounded down to whole packets),
// whatever the clock does: a chunk that fills up before a PCR ends it is cut
// there and lasts until the last PCR it holds, or the nominal duration when
// the clock did not move in it (the clock then starts again at the next PCR).
//
// Bytes that are not on a packet boundary (a damaged or truncated stream) are
// skipped until two sync bytes 188 bytes apart are found again, and counted.
//
// Push interface: Feed() any amount of bytes, then Finish(). Not thread-safe.
class MpegTsChunker {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    static constexpr size_t kPacketSize = 188;
    static constexpr char kSyncByte = 0x47;

    MpegTsChunker(TimePoint targetDuration, uint64_t maxSize);

    // True when `head` (the start of a stream) holds at least two packets and
    // a sync byte at every packet boundary it covers.
    static bool LooksLikeMpegTs(std::string_view head);

    void Feed(std::string_view bytes);
    // Flushes the last, partial chunk (nominal duration, or as long as its
    // clock ran when longer); a trailing partial packet is dropped and
    // counted as skipped.
    void Finish();

    // Chunks ready to be taken, oldest first.
    std::deque<SourceChunk>& Ready() { return ready_; }
    uint64_t SkippedBytes() const { return skipped_; }

  private:
    // Aligns pending_ on a sync byte; false when more bytes are needed.
    bool Resync(bool atEnd);
    void TakePacket(std::string_view packet);
    // The packet's PCR in nanoseconds when it carries one on the PCR stream.
    std::optional<int64_t> PacketPcr(std::string_view packet);
    void OnPcr(int64_t pcrNs);
    // Ends the current chunk because the next packet, whose PCR is
    // `nextPcr`, would not fit.
    void CutBySize(std::optional<int64_t> nextPcr);
    // Ends the current chunk before a packet that starts a key frame, if it
    // is long enough; `pcr` is that packet's.
    void CutAtKeyFrame(std::optional<int64_t> pcr);
    // True when `packet` starts a key frame on the PCR stream.
    bool StartsKeyFrame(std::string_view packet) const;
    void Emit(TimePoint duration);

    const TimePoint targetDuration_;
    const uint64_t maxSize_;
    std::string pending_;  // bytes not yet cut into packets
    size_t pendingStart_ = 0;
    std::string current_;  // whole packets of the chunk being built
    // False after bytes were skipped, until a boundary is confirmed.
    bool inStep_ = true;
    std::optional<int64_t> chunkStartPcr_;
    // The latest PCR since chunkStartPcr_, which it follows by at most the
    // largest step of the clock; set only while chunkStartPcr_ is.
    std::optional<int64_t> lastPcr_;
    std::optional<int> pcrPid_;
    // The stream marks its key frames: chunks wait for one.
    bool keyFramesMarked_ = false;
    // The chunk is long enough: it ends before the next key frame.
    bool keyFrameDue_ = false;
    std::deque<SourceChunk> ready_;
    uint64_t skipped_ = 0;
};

}  // namespace loopstore::cli
