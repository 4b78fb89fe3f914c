#include "Host/Cli/AvInput.h"

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {

AVDictionary* OpenOptions(std::chrono::milliseconds stallTimeout) {
    const std::string micros =
        std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(stallTimeout).count());
    AVDictionary* options = nullptr;
    // Any protocol's I/O, and the socket timeouts of udp, tcp and rtsp.
    av_dict_set(&options, "rw_timeout", micros.c_str(), 0);
    av_dict_set(&options, "timeout", micros.c_str(), 0);
    // A burst larger than the UDP queue loses packets, not the connection.
    av_dict_set(&options, "overrun_nonfatal", "1", 0);
    return options;
}

}  // namespace

std::string AvInput::ErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

AvInput::AvInput(const std::string& url, std::chrono::milliseconds stallTimeout,
                 const std::atomic<bool>& stop)
    : stallTimeout_(stallTimeout), stop_(stop) {
    // The decoders' complaints while probing a stream joined midway are
    // expected; failures are reported by the caller.
    av_log_set_level(AV_LOG_FATAL);
    context_ = avformat_alloc_context();
    if (context_ == nullptr)
        throw CliError("cannot open " + url + ": out of memory");
    context_->interrupt_callback = {&AvInput::Interrupted, this};
    AVDictionary* options = OpenOptions(stallTimeout);
    Arm();
    // On failure the context is freed and set to null.
    int code = avformat_open_input(&context_, url.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (code >= 0) {
        Arm();
        code = avformat_find_stream_info(context_, nullptr);
    }
    if (code < 0 || context_->nb_streams == 0) {
        const std::string why =
            code < 0 ? (Expired() ? "nothing came in time" : ErrorText(code)) : "it has no streams";
        avformat_close_input(&context_);
        throw CliError("cannot open " + url + ": " + why);
    }
    keyStream_ = std::max(0, av_find_best_stream(context_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0));
}

AvInput::~AvInput() {
    avformat_close_input(&context_);
}

void AvInput::Arm() {
    deadline_ = std::chrono::steady_clock::now() + stallTimeout_;
}

bool AvInput::Expired() const {
    return std::chrono::steady_clock::now() >= deadline_;
}

int AvInput::Interrupted(void* self) {
    const AvInput& input = *static_cast<const AvInput*>(self);
    return input.stop_.load() || input.Expired() ? 1 : 0;
}

AvInput::Read AvInput::ReadPacket(AVPacket& packet) {
    Arm();
    const int code = av_read_frame(context_, &packet);
    if (code >= 0)
        return Read::kPacket;
    if (stop_.load())
        return Read::kStopped;
    // The protocol's own timeout and the interrupt callback's deadline end
    // a read that waited too long, whichever comes first.
    if (Expired() || code == AVERROR(ETIMEDOUT) || code == AVERROR_EXIT)
        return Read::kStalled;
    error_ = ErrorText(code);
    return Read::kEnd;
}

}  // namespace loopstore::cli
