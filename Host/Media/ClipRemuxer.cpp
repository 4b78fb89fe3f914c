#include "Host/Media/ClipRemuxer.h"

#include <algorithm>
#include <utility>

#include "Host/Media/Demuxer.h"
#include "Host/Media/MediaError.h"
#include "Host/Media/Muxer.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace loopstore::media {

namespace {

constexpr AVRational kNanoseconds{1, 1'000'000'000};

bool IsKey(const Packet& packet) {
    return (packet->flags & AV_PKT_FLAG_KEY) != 0;
}

}  // namespace

ClipRemuxer::ClipRemuxer(Demuxer& input, Muxer& output, PacketTime time, Splice splice)
    : input_(input),
      output_(output),
      time_(std::move(time)),
      splice_(std::move(splice)),
      reference_(input.ReferenceStream()) {}

ClipRemuxer::Outcome ClipRemuxer::Run(int64_t from, int64_t to, bool laterStartAllowed,
                                      const Progress& progress) {
    AddStreams();
    bool started = false;
    bool needEarlier = false;
    Packet packet;
    while (input_.Read(packet)) {
        if (outputIndex_.count(packet->stream_index) == 0 || !FillTimestamps(packet))
            continue;
        const Times times = TimesOf(packet);
        if (progress)
            progress(times.decode);
        // Read on to the end: another stream may still be inside the range.
        if (times.decode >= to)
            continue;
        if (started) {
            Take(std::exchange(packet, Packet()), times);
            continue;
        }
        started = Seek(packet, times, from, needEarlier, laterStartAllowed);
        if (needEarlier)
            return Outcome::kNeedEarlier;
    }
    if (!started && !pending_.empty())
        Begin();  // the range ends within the first group of pictures
    Flush();
    summary_.durationNs =
        av_rescale_q(timestamps_.End(), ContinuousTimestamps::kClock, kNanoseconds);
    return summary_.packets > 0 ? Outcome::kWritten : Outcome::kEmpty;
}

bool ClipRemuxer::FillTimestamps(Packet& packet) {
    if (packet->dts == AV_NOPTS_VALUE)
        packet->dts = packet->pts;
    if (packet->pts == AV_NOPTS_VALUE)
        packet->pts = packet->dts;
    return packet->dts != AV_NOPTS_VALUE;  // else nowhere to place it
}

ClipRemuxer::Times ClipRemuxer::TimesOf(const Packet& packet) {
    if (packet->pos >= 0)
        lastReadPos_ = packet->pos;
    return {time_(lastReadPos_, ToClock(packet, packet->dts)),
            time_(lastReadPos_, ToClock(packet, packet->pts))};
}

void ClipRemuxer::AddStreams() {
    for (unsigned i = 0; i < input_.StreamCount(); ++i) {
        if (input_.IsAudioOrVideo(i))
            outputIndex_[static_cast<int>(i)] = output_.AddStream(input_.Stream(i));
    }
    if (outputIndex_.empty())
        throw MediaError("the exported data holds no audio or video stream");
}

bool ClipRemuxer::Seek(Packet& packet, const Times& times, int64_t from, bool& needEarlier,
                       bool laterStartAllowed) {
    const bool reference = packet->stream_index == reference_;
    const bool key = reference && IsKey(packet);
    if (packet->pos >= 0) {
        if (lastPos_ >= 0 && splice_(lastPos_, packet->pos)) {
            // Frames before a hole cannot start what follows it, and looking
            // further back cannot help.
            pending_.clear();
            seekSpliced_ = true;
        }
        lastPos_ = packet->pos;
    }
    if (times.decode < from)
        sawBeforeFrom_ = true;
    if (key && times.display <= from) {
        pending_.clear();
        summary_.start = times.display;
        pending_.push_back({std::exchange(packet, Packet()), times});
        return false;
    }
    if (pending_.empty()) {
        if (!key)
            return false;  // undecodable without the key frame before it
        if (sawBeforeFrom_ && !laterStartAllowed && !seekSpliced_) {
            needEarlier = true;
            return false;
        }
        summary_.start = times.display;
        summary_.startsLate = sawBeforeFrom_;
        pending_.push_back({std::exchange(packet, Packet()), times});
        Begin();
        return true;
    }
    pending_.push_back({std::exchange(packet, Packet()), times});
    // Later key frames of the reference stream are shown after `from`.
    if (!reference || times.decode <= from)
        return false;
    Begin();
    return true;
}

void ClipRemuxer::Begin() {
    output_.Begin();
    std::vector<Timed> pending = std::exchange(pending_, {});
    startDts_ = ToClock(pending.front().packet, pending.front().packet->dts);
    for (Timed& timed : pending)
        Take(std::move(timed.packet), timed.times);
}

int64_t ClipRemuxer::ToClock(const Packet& packet, int64_t ts) const {
    return av_rescale_q(ts, input_.Stream(packet->stream_index).time_base,
                        ContinuousTimestamps::kClock);
}

void ClipRemuxer::Take(Packet packet, const Times& times) {
    int64_t dts = ToClock(packet, packet->dts);
    CheckContinuity(packet, dts, times.decode);
    if (packet->pos >= 0)
        lastPos_ = packet->pos;
    const bool reference = packet->stream_index == reference_;
    // The first packets of a new run break the continuity counters that the
    // demuxer checks; they are whole all the same.
    const bool corrupt = (packet->flags & AV_PKT_FLAG_CORRUPT) != 0 && !rejoin_;
    if (reference && corrupt)
        resync_ = true;
    if (resync_) {
        // What follows a hole may lean on frames lost in it.
        if (!reference || !IsKey(packet) || corrupt)
            return;
        resync_ = false;
    }
    if (corrupt || (firstRun_ && dts < startDts_))
        return;
    if (rejoin_) {
        timestamps_.Rejoin(dts);
        rejoin_ = false;
    }
    int64_t pts = ToClock(packet, packet->pts);
    const int64_t duration = ToClock(packet, packet->duration);
    timestamps_.Map(packet->stream_index, dts, pts, duration);
    packet->dts = dts;
    packet->pts = pts;
    packet->duration = duration;
    summary_.end = std::max(
        summary_.end,
        times.display + av_rescale_q(duration, ContinuousTimestamps::kClock, kNanoseconds));
    Hold(std::move(packet));
}

void ClipRemuxer::CheckContinuity(const Packet& packet, int64_t dts, int64_t time) {
    bool broken = packet->pos >= 0 && lastPos_ >= 0 && splice_(lastPos_, packet->pos);
    if (!broken && !rejoin_) {
        if (const auto step = timestamps_.Jump(packet->stream_index, dts)) {
            summary_.jumps.push_back(
                {time, av_rescale_q(*step, ContinuousTimestamps::kClock, kNanoseconds)});
            broken = true;
        }
    }
    if (broken) {
        resync_ = rejoin_ = true;
        firstRun_ = false;
    }
}

void ClipRemuxer::Hold(Packet packet) {
    auto it = held_.find(packet->stream_index);
    if (it == held_.end()) {
        held_.emplace(packet->stream_index, std::move(packet));
        return;
    }
    // A packet whose successor lies beyond a hole may have been cut by it.
    const bool cut =
        it->second->pos >= 0 && packet->pos >= 0 && splice_(it->second->pos, packet->pos);
    if (!cut)
        Emit(it->second);
    it->second = std::move(packet);
}

void ClipRemuxer::Emit(Packet& packet) {
    const int stream = outputIndex_.at(packet->stream_index);
    av_packet_rescale_ts(packet.get(), ContinuousTimestamps::kClock, output_.TimeBase(stream));
    packet->stream_index = stream;
    packet->pos = -1;
    output_.Write(packet);
    ++summary_.packets;
}

void ClipRemuxer::Flush() {
    for (auto& [stream, packet] : held_)
        Emit(packet);
    held_.clear();
}

}  // namespace loopstore::media
