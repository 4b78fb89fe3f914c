#include "Host/Media/Muxer.h"

#include <new>
#include <utility>

#include "Host/Media/MediaError.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

namespace loopstore::media {

namespace {

// libavformat writes through a buffer of this size.
constexpr int kIoBufferSize = 64 * 1024;

}  // namespace

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

Muxer::Muxer(const std::string& formatName, WriteFunction write, const std::string& name)
    : path_(name), write_(std::move(write)) {
    MediaError::Check(
        avformat_alloc_output_context2(&format_, nullptr, formatName.c_str(), nullptr),
        "preparing a " + formatName + " output for " + name);
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    format_->pb = buffer == nullptr ? nullptr
                                    : avio_alloc_context(buffer, kIoBufferSize, 1, this, nullptr,
                                                         &Muxer::WritePacket, nullptr);
    if (format_->pb == nullptr) {
        av_free(buffer);
        Close();
        throw std::bad_alloc();
    }
    format_->flags |= AVFMT_FLAG_CUSTOM_IO;
}

Muxer::~Muxer() {
    Close();
}

void Muxer::Close() {
    av_dict_free(&options_);
    if (format_ == nullptr)
        return;
    if (write_) {
        if (format_->pb != nullptr)
            av_freep(&format_->pb->buffer);
        avio_context_free(&format_->pb);
    } else {
        avio_closep(&format_->pb);
    }
    avformat_free_context(format_);
    format_ = nullptr;
}

int Muxer::WritePacket(void* opaque, uint8_t* bytes, int size) {
    auto* self = static_cast<Muxer*>(opaque);
    if (self->writeError_)
        return AVERROR_EXIT;
    try {
        self->write_(bytes, static_cast<size_t>(size));
        return size;
    } catch (...) {
        // No exception may cross libavformat's C frames.
        self->writeError_ = std::current_exception();
        return AVERROR_EXIT;
    }
}

int Muxer::Check(int code, const std::string& what) {
    if (writeError_)
        std::rethrow_exception(writeError_);
    return MediaError::Check(code, what);
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

void Muxer::SetOption(const std::string& key, const std::string& value) {
    MediaError::Check(av_dict_set(&options_, key.c_str(), value.c_str(), 0),
                      "setting " + key + " for " + path_);
}

void Muxer::Begin() {
    Check(avformat_write_header(format_, &options_), "writing the header of " + path_);
}

AVRational Muxer::TimeBase(int stream) const {
    return format_->streams[stream]->time_base;
}

void Muxer::Write(Packet& packet) {
    Check(av_interleaved_write_frame(format_, packet.get()), "writing " + path_);
}

void Muxer::Finish() {
    Check(av_write_trailer(format_), "finishing " + path_);
    if (write_) {
        avio_flush(format_->pb);
        Check(format_->pb->error, "flushing " + path_);
        return;
    }
    const int closed = avio_closep(&format_->pb);
    MediaError::Check(closed, "closing " + path_);
}

}  // namespace loopstore::media
