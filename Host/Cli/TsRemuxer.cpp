#include "Host/Cli/TsRemuxer.h"

extern "C" {
#include <libavutil/opt.h>
}

#include "Host/Cli/AvInput.h"
#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {

constexpr int kIoBufferSize = 64 * 1024;

bool Remuxable(AVMediaType type) {
    return type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO ||
           type == AVMEDIA_TYPE_SUBTITLE;
}

void Check(int code, const std::string& what) {
    if (code < 0)
        throw CliError("cannot remux the stream as MPEG-TS: " + what + ": " +
                       AvInput::ErrorText(code));
}

}  // namespace

TsRemuxer::TsRemuxer(const AVFormatContext& input) {
    Check(avformat_alloc_output_context2(&output_, nullptr, "mpegts", nullptr), "muxer");
    try {
        for (unsigned i = 0; i < input.nb_streams; ++i) {
            const AVStream& in = *input.streams[i];
            if (!Remuxable(in.codecpar->codec_type)) {
                streams_.push_back(-1);
                continue;
            }
            AVStream* out = avformat_new_stream(output_, nullptr);
            Check(out ? avcodec_parameters_copy(out->codecpar, in.codecpar) : AVERROR(ENOMEM),
                  "stream " + std::to_string(i));
            out->codecpar->codec_tag = 0;
            out->time_base = in.time_base;
            streams_.push_back(out->index);
        }
        auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
        io_ = avio_alloc_context(buffer, kIoBufferSize, 1, this, nullptr, &TsRemuxer::Append,
                                 nullptr);
        output_->pb = io_;
        Check(avformat_write_header(output_, nullptr), "header");
    } catch (...) {
        Release();
        throw;
    }
}

TsRemuxer::~TsRemuxer() {
    Release();
}

void TsRemuxer::Release() {
    if (io_ != nullptr) {
        av_freep(&io_->buffer);
        avio_context_free(&io_);
    }
    avformat_free_context(output_);
    output_ = nullptr;
}

int TsRemuxer::Append(void* self, uint8_t* bytes, int size) {
    static_cast<TsRemuxer*>(self)->bytes_.append(reinterpret_cast<const char*>(bytes),
                                                 static_cast<size_t>(size));
    return size;
}

bool TsRemuxer::Keeps(int index) const {
    return index >= 0 && static_cast<size_t>(index) < streams_.size() && streams_[index] >= 0;
}

void TsRemuxer::Write(AVPacket& packet, AVRational timeBase) {
    const int input = packet.stream_index;
    packet.stream_index = streams_[input];
    av_packet_rescale_ts(&packet, timeBase, output_->streams[packet.stream_index]->time_base);
    packet.pos = -1;
    Check(av_write_frame(output_, &packet), "packet of stream " + std::to_string(input));
}

std::string TsRemuxer::Take() {
    av_write_frame(output_, nullptr);  // what the muxer holds back
    avio_flush(io_);
    // The next chunk begins with the tables.
    av_opt_set(output_->priv_data, "mpegts_flags", "+resend_headers", 0);
    std::string taken;
    taken.swap(bytes_);
    return taken;
}

}  // namespace loopstore::cli
