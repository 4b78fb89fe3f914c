#include "Host/Media/TestPatternEncoder.h"

#include <algorithm>
#include <memory>

#include "Host/Media/MediaError.h"
#include "Host/Media/MemoryTsMuxer.h"
#include "Host/Media/Packet.h"
#include "Host/Media/TestPatternPicture.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

namespace loopstore::media {

namespace {

constexpr AVRational kMpegTsTime{1, 90000};
constexpr int64_t kMpegTsWrap = int64_t{1} << 33;

struct CodecFree {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

CodecPtr OpenEncoder(const TestPatternEncoder::Options& o, int frames) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr)
        throw MediaError("the test pattern needs libavcodec built with libx264");
    CodecPtr c(avcodec_alloc_context3(codec));
    c->width = o.width;
    c->height = o.height;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = kMpegTsTime;
    c->framerate = AVRational{o.framesPerSecond, 1};
    c->gop_size = frames;
    c->max_b_frames = 0;
    c->thread_count = 1;
    av_opt_set(c->priv_data, "preset", "ultrafast", 0);
    av_opt_set(c->priv_data, "tune", "zerolatency", 0);
    av_opt_set_int(c->priv_data, "qp", o.quantizer, 0);
    MediaError::Check(avcodec_open2(c.get(), codec, nullptr),
                      "opening libx264 for the test pattern");
    return c;
}

FramePtr AllocateFrame(const TestPatternEncoder::Options& o) {
    FramePtr frame(av_frame_alloc());
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = o.width;
    frame->height = o.height;
    MediaError::Check(av_frame_get_buffer(frame.get(), 0), "allocating a test pattern picture");
    return frame;
}

// Moves every packet the encoder has ready into the muxer.
void Drain(AVCodecContext& codec, MemoryTsMuxer& muxer) {
    Packet packet;
    for (;;) {
        const int got = avcodec_receive_packet(&codec, packet.get());
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF)
            return;
        MediaError::Check(got, "encoding the test pattern");
        av_packet_rescale_ts(packet.get(), codec.time_base, muxer.TimeBase());
        muxer.Write(packet);
        packet.Clear();
    }
}

}  // namespace

TestPatternEncoder::TestPatternEncoder(Options options) : options_(options) {}

int TestPatternEncoder::FramesIn(int64_t nanoseconds) const {
    return static_cast<int>(std::max<int64_t>(1, nanoseconds / FrameNanoseconds()));
}

std::string TestPatternEncoder::EncodeGroup(int64_t trackId, int64_t startNanoseconds,
                                            int frames) const {
    CodecPtr codec = OpenEncoder(options_, frames);
    MemoryTsMuxer muxer(*codec);
    FramePtr frame = AllocateFrame(options_);
    const int64_t ticksPerFrame = kMpegTsTime.den / options_.framesPerSecond;
    const int64_t firstTick = (startNanoseconds / 1'000'000 * 90) % kMpegTsWrap;
    for (int i = 0; i < frames; ++i) {
        MediaError::Check(av_frame_make_writable(frame.get()), "reusing a test pattern picture");
        TestPatternPicture::Draw(*frame, trackId, startNanoseconds + i * FrameNanoseconds(),
                                 options_.snow);
        frame->pts = firstTick + i * ticksPerFrame;
        frame->pict_type = i == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        MediaError::Check(avcodec_send_frame(codec.get(), frame.get()),
                          "encoding a test pattern picture");
        Drain(*codec, muxer);
    }
    MediaError::Check(avcodec_send_frame(codec.get(), nullptr), "flushing libx264");
    Drain(*codec, muxer);
    return muxer.Finish();
}

}  // namespace loopstore::media
