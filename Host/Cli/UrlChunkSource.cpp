#include "Host/Cli/UrlChunkSource.h"

#include <thread>

#include "Host/Cli/AvInput.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/TsRemuxer.h"

namespace loopstore::cli {

namespace {

constexpr int64_t kKeylessNs = 10'000'000'000;
// A time stamp further ahead than this is a break in the stream's clock.
constexpr int64_t kLargestStepNs = 10'000'000'000;
constexpr auto kFirstDelay = std::chrono::milliseconds(200);
constexpr auto kLongestDelay = std::chrono::seconds(5);
constexpr auto kStopCheck = std::chrono::milliseconds(100);

std::optional<int64_t> Nanoseconds(const AVPacket& packet, AVRational timeBase) {
    const int64_t at = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    if (at == AV_NOPTS_VALUE)
        return std::nullopt;
    return av_rescale_q(at, timeBase, AVRational{1, 1'000'000'000});
}

std::string Seconds(std::chrono::milliseconds delay) {
    return std::to_string(delay.count() / 1000) + "." + std::to_string(delay.count() % 1000 / 100) +
           " s";
}

}  // namespace

UrlChunkSource::UrlChunkSource(Options options, const std::atomic<bool>& stop, std::ostream& notes)
    : options_(std::move(options)),
      stop_(stop),
      notes_(notes),
      backoff_(kFirstDelay, kLongestDelay),
      packet_(av_packet_alloc()) {
    if (packet_ == nullptr)
        throw CliError("cannot read " + options_.url + ": out of memory");
}

UrlChunkSource::~UrlChunkSource() {
    muxer_.reset();
    input_.reset();
    av_packet_free(&packet_);
}

void UrlChunkSource::Note(const std::string& text) {
    notes_ << "record: " + text + "\n" << std::flush;
}

bool UrlChunkSource::Next(TimePoint, SourceChunk& out) {
    while (!Stopped()) {
        if (!input_ && !Open())
            break;
        const AvInput::Read read = input_->ReadPacket(*packet_);
        if (read == AvInput::Read::kPacket) {
            bool done = false;
            try {
                done = Take(*packet_, out);
            } catch (const CliError& refused) {
                done = Lost(std::string(refused.what()) + "; reconnecting", out);
            }
            av_packet_unref(packet_);
            if (done)
                return true;
        } else if (read == AvInput::Read::kStalled) {
            if (Lost("stream stalled: no packet from " + options_.url + " for " +
                         Seconds(options_.stallTimeout) + "; reconnecting",
                     out))
                return true;
        } else if (read == AvInput::Read::kEnd) {
            if (Lost("the stream from " + options_.url + " ended (" + input_->Error() +
                         "); reconnecting",
                     out))
                return true;
        }
    }
    // Stopped: the chunk in progress is the last one.
    const bool last = Emit(Elapsed(), out);
    muxer_.reset();
    return last;
}

bool UrlChunkSource::Open() {
    while (!Stopped()) {
        try {
            input_ = std::make_unique<AvInput>(options_.url, options_.stallTimeout, stop_);
            backoff_.Reset();
            Note("reading " + options_.url);
            return true;
        } catch (const CliError& failure) {
            if (Stopped())
                break;
            const auto delay = backoff_.Next();
            Note(std::string(failure.what()) + "; trying again in " + Seconds(delay));
            for (auto waited = std::chrono::milliseconds(0); waited < delay && !Stopped();
                 waited += kStopCheck)
                std::this_thread::sleep_for(kStopCheck);
        }
    }
    return false;
}

bool UrlChunkSource::Lost(const std::string& why, SourceChunk& out) {
    Note(why);
    const bool partial = Emit(Elapsed(), out);
    muxer_.reset();
    input_.reset();
    keyFrameSeen_ = false;
    chunkStart_.reset();
    last_.reset();
    lastKey_.reset();
    lastDts_.clear();
    return partial;
}

bool UrlChunkSource::Take(AVPacket& packet, SourceChunk& out) {
    const AVFormatContext& context = input_->Context();
    const AVRational timeBase = context.streams[packet.stream_index]->time_base;
    const std::optional<int64_t> at = Nanoseconds(packet, timeBase);
    const bool keyStream = packet.stream_index == input_->KeyStream();
    const bool key = keyStream && (packet.flags & AV_PKT_FLAG_KEY) != 0;
    bool emitted = false;
    if (keyStream && at && last_ && (*at < *last_ || *at - *last_ > kLargestStepNs)) {
        // The clock broke (the camera restarted behind the same address):
        // a new muxer, from the next key frame.
        emitted = Emit(Elapsed(), out);
        muxer_.reset();
        keyFrameSeen_ = false;
        lastDts_.clear();
    }
    if (!keyFrameSeen_) {
        if (!key || !at)
            return emitted;  // a chunk starts at a key frame
        keyFrameSeen_ = true;
        chunkStart_ = lastKey_ = at;
    }
    if (keyStream && at) {
        const int64_t elapsed = *at - *chunkStart_;
        const bool keyless = *at - *lastKey_ >= kKeylessNs;
        if (!emitted && elapsed >= options_.chunkDuration.ToNanoseconds() && (key || keyless)) {
            emitted = Emit(TimePoint::FromNanoseconds(elapsed), out);
            chunkStart_ = at;
        }
        last_ = at;
        if (key)
            lastKey_ = at;
    }
    if (!muxer_)
        muxer_ = std::make_unique<TsRemuxer>(context);
    if (!muxer_->Keeps(packet.stream_index))
        return emitted;
    if (packet.dts != AV_NOPTS_VALUE) {
        auto [previous, fresh] = lastDts_.emplace(packet.stream_index, packet.dts);
        if (!fresh && packet.dts <= previous->second)
            return emitted;  // out of order: the muxer would refuse it
        previous->second = packet.dts;
    }
    muxer_->Write(packet, timeBase);
    return emitted;
}

UrlChunkSource::TimePoint UrlChunkSource::Elapsed() const {
    return TimePoint::FromNanoseconds(chunkStart_ && last_ ? *last_ - *chunkStart_ : 0);
}

bool UrlChunkSource::Emit(TimePoint duration, SourceChunk& out) {
    if (!muxer_)
        return false;
    std::string bytes = muxer_->Take();
    if (bytes.empty())
        return false;
    out.payload = std::move(bytes);
    out.duration = duration > TimePoint() ? duration : options_.chunkDuration;
    return true;
}

}  // namespace loopstore::cli
