#include "Host/Cli/MpegTsChunker.h"

#include <algorithm>

#include "Host/Media/ProgramClock.h"

namespace loopstore::cli {

using media::ProgramClock;

namespace {

constexpr int64_t kMaxPcrStepNs = 10'000'000'000;
// How long past its duration a chunk waits for a key frame.
constexpr int64_t kMaxKeyFrameWaitNs = kMaxPcrStepNs;

}  // namespace

MpegTsChunker::MpegTsChunker(TimePoint targetDuration, uint64_t maxSize)
    : targetDuration_(targetDuration),
      // A chunk holds at least one packet and whole packets only.
      maxSize_(std::max<uint64_t>(kPacketSize, maxSize - maxSize % kPacketSize)) {}

bool MpegTsChunker::LooksLikeMpegTs(std::string_view head) {
    if (head.size() < 2 * kPacketSize)
        return false;
    for (size_t at = 0; at < head.size(); at += kPacketSize)
        if (head[at] != kSyncByte)
            return false;
    return true;
}

void MpegTsChunker::Feed(std::string_view bytes) {
    pending_.append(bytes);
    while (Resync(false)) {
        if (pending_.size() - pendingStart_ < kPacketSize)
            break;
        TakePacket(std::string_view(pending_).substr(pendingStart_, kPacketSize));
        pendingStart_ += kPacketSize;
    }
    pending_.erase(0, pendingStart_);
    pendingStart_ = 0;
}

void MpegTsChunker::Finish() {
    while (Resync(true) && pending_.size() - pendingStart_ >= kPacketSize) {
        TakePacket(std::string_view(pending_).substr(pendingStart_, kPacketSize));
        pendingStart_ += kPacketSize;
    }
    skipped_ += pending_.size() - pendingStart_;
    pending_.clear();
    pendingStart_ = 0;
    if (current_.empty())
        return;
    // A last chunk that waited for a key frame lasts as long as its clock ran.
    const int64_t ran = chunkStartPcr_ && lastPcr_ ? *lastPcr_ - *chunkStartPcr_ : 0;
    Emit(std::max(targetDuration_, TimePoint::FromNanoseconds(ran)));
}

bool MpegTsChunker::Resync(bool atEnd) {
    const std::string_view rest = std::string_view(pending_).substr(pendingStart_);
    if (rest.empty())
        return false;
    // In step, a packet only has to start with a sync byte. A lost packet
    // boundary is found again where two sync bytes lie one packet apart (one
    // 0x47 alone is common inside payloads); at the end of the stream one is
    // enough.
    for (size_t at = 0; at < rest.size(); ++at) {
        if (rest[at] != kSyncByte)
            continue;
        const bool confirmed =
            (at == 0 && inStep_) ||
            (at + kPacketSize < rest.size() ? rest[at + kPacketSize] == kSyncByte : atEnd);
        if (!confirmed && at + kPacketSize >= rest.size()) {
            skipped_ += at;
            pendingStart_ += at;
            inStep_ = false;
            return false;  // wait for more bytes to confirm
        }
        if (confirmed) {
            skipped_ += at;
            pendingStart_ += at;
            inStep_ = true;
            return true;
        }
    }
    inStep_ = false;
    // No sync byte can start a packet here.
    skipped_ += rest.size();
    pendingStart_ += rest.size();
    return false;
}

void MpegTsChunker::TakePacket(std::string_view packet) {
    const std::optional<int64_t> pcr = PacketPcr(packet);
    if (pcr)
        OnPcr(*pcr);
    if (StartsKeyFrame(packet)) {
        keyFramesMarked_ = true;
        CutAtKeyFrame(pcr);
    }
    // The clock may stop, repeat itself or move to another stream: the size
    // limit holds all the same.
    if (current_.size() + packet.size() > maxSize_)
        CutBySize(pcr);
    if (pcr)
        lastPcr_ = pcr;
    current_.append(packet);
    if (!pcrPid_ && current_.size() >= maxSize_)
        Emit(targetDuration_);
}

void MpegTsChunker::CutBySize(std::optional<int64_t> nextPcr) {
    if (chunkStartPcr_ && lastPcr_ && *lastPcr_ > *chunkStartPcr_) {
        Emit(TimePoint::FromNanoseconds(*lastPcr_ - *chunkStartPcr_));
        chunkStartPcr_ = lastPcr_;
        return;
    }
    // The clock did not move in the chunk: the next one starts at the next
    // packet's PCR, or at the first PCR to come.
    Emit(targetDuration_);
    chunkStartPcr_ = nextPcr;
    lastPcr_.reset();
}

bool MpegTsChunker::StartsKeyFrame(std::string_view p) const {
    const auto byte = [p](size_t i) { return static_cast<uint8_t>(p[i]); };
    const bool unitStart = (byte(1) & 0x40) != 0;
    const bool hasAdaptation = (byte(3) & 0x20) != 0;
    if (!unitStart || !hasAdaptation || byte(4) == 0 || (byte(5) & 0x40) == 0)
        return false;
    // Audio frames are all marked too: only the stream that carries the
    // clock (the video, when there is one) paces the cuts.
    const int pid = ((byte(1) & 0x1f) << 8) | byte(2);
    return pcrPid_ && *pcrPid_ == pid;
}

void MpegTsChunker::CutAtKeyFrame(std::optional<int64_t> pcr) {
    if (!keyFrameDue_ || current_.empty())
        return;
    const int64_t end = pcr.value_or(*lastPcr_);
    if (end <= *chunkStartPcr_ || end - *chunkStartPcr_ > kMaxPcrStepNs)
        return;  // the clock went back or jumped: OnPcr deals with it
    Emit(TimePoint::FromNanoseconds(end - *chunkStartPcr_));
    chunkStartPcr_ = end;
    lastPcr_ = end;
}

std::optional<int64_t> MpegTsChunker::PacketPcr(std::string_view p) {
    const std::optional<ProgramClock> pcr = ProgramClock::Of(p);
    if (!pcr || (pcrPid_ && *pcrPid_ != pcr->pid))
        return std::nullopt;
    pcrPid_ = pcr->pid;
    return pcr->Nanoseconds();
}

void MpegTsChunker::OnPcr(int64_t pcrNs) {
    if (!chunkStartPcr_) {
        // Packets before the first PCR belong to the first chunk.
        chunkStartPcr_ = pcrNs;
        return;
    }
    const int64_t step = pcrNs - *chunkStartPcr_;
    if (step < 0 || step > kMaxPcrStepNs) {
        if (!current_.empty())
            Emit(targetDuration_);
        chunkStartPcr_ = pcrNs;
        return;
    }
    if (step <= 0 || current_.empty())
        return;
    // A stream that marks key frames waits for the next one, a while. The
    // encoder places them by frame count: one a little early still counts.
    if (keyFramesMarked_ && step < kMaxKeyFrameWaitNs) {
        if (TimePoint::FromNanoseconds(step + step / 16) >= targetDuration_)
            keyFrameDue_ = true;
        return;
    }
    // The marks stopped: the clock paces the cuts until they come back.
    keyFramesMarked_ = false;
    if (TimePoint::FromNanoseconds(step) >= targetDuration_ || current_.size() >= maxSize_) {
        Emit(TimePoint::FromNanoseconds(step));
        chunkStartPcr_ = pcrNs;
    }
}

void MpegTsChunker::Emit(TimePoint duration) {
    ready_.push_back(SourceChunk{std::move(current_), duration});
    current_.clear();
    keyFrameDue_ = false;
}

}  // namespace loopstore::cli
