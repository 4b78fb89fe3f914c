#include "Host/Media/Muxer.h"

#include "Host/Media/MediaError.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace loopstore::media {

Muxer::Muxer(const std::string& formatName, const std::string& path) : path_(path) {
    MediaError::Check(
        avformat_alloc_output_context2(&format_, nullptr, formatName.c_str(), path.c_str()),
        "preparing a " + formatName + " output for " + path);
    const int opened = avio_open(&format_->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (opened < 0) {
        Close();
        MediaError::Check(opened, "creating " + path);
    }
}

Muxer::~Muxer() {
    Close();
}

void Muxer::Close() {
    if (format_ == nullptr)
        return;
    avio_closep(&format_->pb);
    avformat_free_context(format_);
    format_ = nullptr;
}

int Muxer::AddStream(const AVStream& input) {
    AVStream* stream = avformat_new_stream(format_, nullptr);
    if (stream == nullptr)
        throw MediaError("adding a stream to " + path_);
    MediaError::Check(avcodec_parameters_copy(stream->codecpar, input.codecpar),
                      "copying the codec parameters for " + path_);
    // The input's codec tag means nothing in another container.
    stream->codecpar->codec_tag = 0;
    stream->time_base = input.time_base;
    return stream->index;
}

void Muxer::Begin() {
    MediaError::Check(avformat_write_header(format_, nullptr), "writing the header of " + path_);
}

AVRational Muxer::TimeBase(int stream) const {
    return format_->streams[stream]->time_base;
}

void Muxer::Write(Packet& packet) {
    MediaError::Check(av_interleaved_write_frame(format_, packet.get()), "writing " + path_);
}

void Muxer::Finish() {
    MediaError::Check(av_write_trailer(format_), "finishing " + path_);
    const int closed = avio_closep(&format_->pb);
    MediaError::Check(closed, "closing " + path_);
}

}  // namespace loopstore::media
