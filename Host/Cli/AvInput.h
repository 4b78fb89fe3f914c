#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <atomic>
#include <chrono>
#include <string>

namespace loopstore::cli {

// One connection to a camera or network stream (rtsp://, udp://, srt://,
// anything libavformat opens), read packet by packet. Every blocking step
// (opening, probing, reading) is bounded by `stallTimeout` through the
// protocols' timeouts and an interrupt callback, which also ends it when
// `stop` is set, so a dead camera is noticed instead of waited for.
//
// Owns its demuxer context. Refers to `stop`, which must outlive it. One
// thread.
class AvInput {
  public:
    enum class Read { kPacket, kEnd, kStalled, kStopped };

    // Opens `url` and probes its streams. Throws CliError naming the url
    // and libavformat's reason.
    AvInput(const std::string& url, std::chrono::milliseconds stallTimeout,
            const std::atomic<bool>& stop);
    ~AvInput();
    AvInput(const AvInput&) = delete;
    AvInput& operator=(const AvInput&) = delete;

    // Fills `packet` (kPacket; the caller unrefs it). kEnd: the stream ended
    // or failed (Error() says how); kStalled: nothing came for the timeout.
    Read ReadPacket(AVPacket& packet);

    const AVFormatContext& Context() const { return *context_; }
    // The stream whose key frames cut chunks: the main video stream, else
    // the first stream.
    int KeyStream() const { return keyStream_; }
    const std::string& Error() const { return error_; }

    // libavformat's text for an error code.
    static std::string ErrorText(int code);

  private:
    static int Interrupted(void* self);
    void Arm();
    bool Expired() const;

    const std::chrono::milliseconds stallTimeout_;
    const std::atomic<bool>& stop_;
    std::chrono::steady_clock::time_point deadline_;
    AVFormatContext* context_ = nullptr;
    int keyStream_ = 0;
    std::string error_;
};

}  // namespace loopstore::cli
