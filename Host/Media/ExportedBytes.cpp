#include "Host/Media/ExportedBytes.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Host/Media/ProgramClock.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::media {

using Moreld::Plexa::Converter;

namespace {

constexpr size_t kPacket = 188;
constexpr char kSync = 0x47;
constexpr uint64_t kWrap = (uint64_t{1} << 33) - 1;

}  // namespace

ExportedBytes::ExportedBytes(NextChunkFunction next, TimePoint from, TimePoint to)
    : next_(std::move(next)), from_(from), to_(to) {}

size_t ExportedBytes::Read(uint8_t* buffer, size_t size) {
    while (used_ == chunk_.data().size()) {
        if (!NextChunk())
            return 0;
    }
    const size_t n = std::min(size, chunk_.data().size() - used_);
    std::memcpy(buffer, chunk_.data().data() + used_, n);
    used_ += n;
    return n;
}

bool ExportedBytes::NextChunk() {
    if (!next_(chunk_))
        return false;
    used_ = 0;
    const TimePoint time = Converter::From(chunk_.timepoint());
    const TimePoint end = time + Converter::From(chunk_.duration());
    const auto size = static_cast<int64_t>(chunk_.data().size());
    if (!pieces_.empty()) {
        const Piece& last = pieces_.back();
        const TimePoint lastEnd = TimePoint::FromNanoseconds(last.time + last.duration);
        if (time - lastEnd >= kMinGap) {
            splices_.push_back(offset_);
            gaps_.push_back({lastEnd, time});
        }
    }
    AddPiece(time, end);
    offset_ += size;
    if (end > from_ && time < to_) {
        ++chunksInRange_;
        bytesInRange_ += static_cast<uint64_t>(size);
    }
    return true;
}

void ExportedBytes::AddPiece(TimePoint time, TimePoint end) {
    const std::string& data = chunk_.data();
    Piece piece{offset_,
                static_cast<int64_t>(data.size()),
                time.ToNanoseconds(),
                (end - time).ToNanoseconds(),
                -1,
                0};
    for (size_t at = 0; at + kPacket <= data.size() && data[at] == kSync; at += kPacket) {
        if (const auto pcr = ProgramClock::Of(std::string_view(data).substr(at, kPacket))) {
            piece.pcrOffset = offset_ + static_cast<int64_t>(at);
            piece.pcrBase = pcr->base;
            break;
        }
    }
    pieces_.push_back(piece);
}

int64_t ExportedBytes::ByteTime(const Piece& piece, int64_t offset) {
    if (offset >= piece.offset + piece.size)
        return piece.time + piece.duration;
    const __int128 within = static_cast<__int128>(piece.duration) * (offset - piece.offset);
    return piece.time + static_cast<int64_t>(within / piece.size);
}

int64_t ExportedBytes::TimeAt(int64_t offset, int64_t ts) const {
    auto it = std::upper_bound(pieces_.begin(), pieces_.end(), offset,
                               [](int64_t at, const Piece& piece) { return at < piece.offset; });
    if (it == pieces_.begin())
        return pieces_.empty() ? 0 : pieces_.front().time;
    const Piece& piece = *--it;
    if (piece.pcrOffset < 0)
        return ByteTime(piece, offset);
    // Both clocks count 33 bits: the difference is taken modulo 2^33.
    int64_t ticks = static_cast<int64_t>((static_cast<uint64_t>(ts) - piece.pcrBase) & kWrap);
    if (ticks > static_cast<int64_t>(kWrap / 2))
        ticks -= static_cast<int64_t>(kWrap) + 1;
    return ByteTime(piece, piece.pcrOffset) + ticks * 100'000 / 9;
}

bool ExportedBytes::Splice(int64_t after, int64_t upTo) const {
    auto it = std::upper_bound(splices_.begin(), splices_.end(), after);
    return it != splices_.end() && *it <= upTo;
}

}  // namespace loopstore::media
