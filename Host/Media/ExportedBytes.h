#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::media {

// The payloads of exported chunks as one byte stream, for a demuxer, and
// what the bytes are worth in time: when a packet starting at some byte is
// shown, and the holes between chunks (a chunk that begins later than the
// previous one ends).
//
// Chunks cut from MPEG-TS are stamped by the stream's program clock (PCR),
// so a timestamp is placed by the first PCR of the chunk that carries the
// packet: the chunk's time plus how far the timestamp lies after that PCR.
// In a chunk without one, a packet gets the time of its first byte,
// interpolated within the chunk, which is early by the encoder's buffering
// delay (under a second).
//
// One thread at a time.
class ExportedBytes {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    struct Gap {
        TimePoint from;
        TimePoint to;
    };
    // Shorter holes are clock rounding, not missing data.
    static constexpr TimePoint kMinGap = TimePoint::FromMilliseconds(1);

    // Fills its argument with the next chunk, in time order; false at the
    // end.
    using NextChunkFunction = std::function<bool(Protocol::Chunk&)>;

    // `from` and `to` bound the range asked for; chunks outside it (read
    // for the key frame before it, or past its end) are not counted.
    ExportedBytes(NextChunkFunction next, TimePoint from, TimePoint to);

    // Copies up to `size` bytes; 0 at the end of the stream.
    size_t Read(uint8_t* buffer, size_t size);

    // Time (ns) at which the timestamp `ts` (90 kHz) of a packet whose first
    // byte lies at `offset` is shown. Bytes not read yet get the end of the
    // last chunk.
    int64_t TimeAt(int64_t offset, int64_t ts) const;
    // True when a hole lies between the bytes at `after` and at `upTo`.
    bool Splice(int64_t after, int64_t upTo) const;

    const std::vector<Gap>& Gaps() const { return gaps_; }
    uint64_t ChunksInRange() const { return chunksInRange_; }
    uint64_t BytesInRange() const { return bytesInRange_; }

  private:
    // Takes the next chunk; false at the end.
    bool NextChunk();

    struct Piece {
        int64_t offset;
        int64_t size;
        int64_t time;
        int64_t duration;
        int64_t pcrOffset;  // of the chunk's first PCR packet, -1: none
        uint64_t pcrBase;   // that PCR, 90 kHz
    };
    // The time of the byte at `offset` of `piece`.
    static int64_t ByteTime(const Piece& piece, int64_t offset);
    // Adds the piece of chunk_, found at offset_.
    void AddPiece(TimePoint time, TimePoint end);

    const NextChunkFunction next_;
    const TimePoint from_;
    const TimePoint to_;
    Protocol::Chunk chunk_;
    size_t used_ = 0;  // bytes of chunk_ handed out
    int64_t offset_ = 0;
    std::vector<Piece> pieces_;
    std::vector<int64_t> splices_;  // offsets of the first byte after a hole
    std::vector<Gap> gaps_;
    uint64_t chunksInRange_ = 0;
    uint64_t bytesInRange_ = 0;
};

}  // namespace loopstore::media
