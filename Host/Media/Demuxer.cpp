#include "Host/Media/Demuxer.h"

#include <new>
#include <utility>

#include "Host/Media/MediaError.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

namespace loopstore::media {

namespace {

// libavformat reads through a buffer of this size.
constexpr int kIoBufferSize = 64 * 1024;

}  // namespace

Demuxer::Demuxer(ReadFunction read, const char* format) : read_(std::move(read)) {
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    io_ = buffer == nullptr ? nullptr
                            : avio_alloc_context(buffer, kIoBufferSize, 0, this,
                                                 &Demuxer::ReadPacket, nullptr, nullptr);
    format_ = avformat_alloc_context();
    if (io_ == nullptr || format_ == nullptr) {
        if (io_ == nullptr)
            av_free(buffer);
        Close();
        throw std::bad_alloc();
    }
    format_->pb = io_;
    format_->flags |= AVFMT_FLAG_CUSTOM_IO;
    const AVInputFormat* input = format == nullptr ? nullptr : av_find_input_format(format);
    const int opened = avformat_open_input(&format_, nullptr, input, nullptr);
    if (opened < 0) {
        // avformat_open_input frees the context on failure.
        format_ = nullptr;
        Close();
        Fail(opened, format == nullptr ? "recognising the container of the stored data"
                                       : "reading the exported stream as MPEG-TS");
    }
    const int found = avformat_find_stream_info(format_, nullptr);
    if (found < 0 || format_->nb_streams == 0) {
        Close();
        Fail(found < 0 ? found : AVERROR_INVALIDDATA, "finding the streams of the exported data");
    }
}

Demuxer::~Demuxer() {
    Close();
}

void Demuxer::Close() {
    avformat_close_input(&format_);
    if (io_ != nullptr) {
        av_freep(&io_->buffer);
        avio_context_free(&io_);
    }
}

bool Demuxer::Read(Packet& packet) {
    packet.Clear();
    const int read = av_read_frame(format_, packet.get());
    if (read == AVERROR_EOF)
        return false;
    if (read < 0)
        Fail(read, "demuxing the exported stream");
    return true;
}

unsigned Demuxer::StreamCount() const {
    return format_->nb_streams;
}

const AVStream& Demuxer::Stream(unsigned index) const {
    return *format_->streams[index];
}

int Demuxer::ReferenceStream() const {
    const int video = av_find_best_stream(format_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    return video >= 0 ? video : 0;
}

bool Demuxer::IsAudioOrVideo(unsigned index) const {
    const AVCodecParameters& codec = *Stream(index).codecpar;
    const bool media =
        codec.codec_type == AVMEDIA_TYPE_VIDEO || codec.codec_type == AVMEDIA_TYPE_AUDIO;
    return media && codec.codec_id != AV_CODEC_ID_NONE;
}

int Demuxer::ReadPacket(void* opaque, uint8_t* buffer, int size) {
    auto* self = static_cast<Demuxer*>(opaque);
    try {
        const size_t read = self->read_(buffer, static_cast<size_t>(size));
        return read == 0 ? AVERROR_EOF : static_cast<int>(read);
    } catch (...) {
        // No exception may cross libavformat's C frames.
        self->readError_ = std::current_exception();
        return AVERROR_EXIT;
    }
}

void Demuxer::Fail(int code, const char* what) {
    if (readError_)
        std::rethrow_exception(std::exchange(readError_, nullptr));
    throw MediaError(std::string(what) + ": " + MediaError::Text(code));
}

}  // namespace loopstore::media
