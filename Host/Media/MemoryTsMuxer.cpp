#include "Host/Media/MemoryTsMuxer.h"

#include "Host/Media/MediaError.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace loopstore::media {

MemoryTsMuxer::MemoryTsMuxer(const AVCodecContext& codec) {
    MediaError::Check(avformat_alloc_output_context2(&format_, nullptr, "mpegts", nullptr),
                      "preparing an in-memory MPEG-TS muxer");
    try {
        Open(codec);
    } catch (...) {
        Free();
        throw;
    }
}

MemoryTsMuxer::~MemoryTsMuxer() {
    Free();
}

void MemoryTsMuxer::Open(const AVCodecContext& codec) {
    MediaError::Check(avio_open_dyn_buf(&format_->pb), "opening an in-memory MPEG-TS buffer");
    AVStream* stream = avformat_new_stream(format_, nullptr);
    if (stream == nullptr)
        throw MediaError("adding a stream to an in-memory MPEG-TS");
    MediaError::Check(avcodec_parameters_from_context(stream->codecpar, &codec),
                      "copying the codec parameters of an in-memory MPEG-TS");
    stream->time_base = AVRational{1, 90000};
    MediaError::Check(avformat_write_header(format_, nullptr),
                      "writing the header of an in-memory MPEG-TS");
}

void MemoryTsMuxer::Free() {
    if (format_->pb != nullptr) {
        uint8_t* bytes = nullptr;
        avio_close_dyn_buf(format_->pb, &bytes);
        av_free(bytes);
    }
    avformat_free_context(format_);
}

AVRational MemoryTsMuxer::TimeBase() const {
    return format_->streams[0]->time_base;
}

void MemoryTsMuxer::Write(Packet& packet) {
    packet->stream_index = 0;
    MediaError::Check(av_write_frame(format_, packet.get()),
                      "writing a packet into an in-memory MPEG-TS");
}

std::string MemoryTsMuxer::Finish() {
    MediaError::Check(av_write_trailer(format_), "finishing an in-memory MPEG-TS");
    uint8_t* bytes = nullptr;
    const int size = avio_close_dyn_buf(format_->pb, &bytes);
    format_->pb = nullptr;
    std::string out(reinterpret_cast<const char*>(bytes), static_cast<size_t>(size));
    av_free(bytes);
    return out;
}

}  // namespace loopstore::media
