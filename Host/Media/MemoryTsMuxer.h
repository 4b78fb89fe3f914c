#pragma once

#include <string>

#include "Host/Media/Packet.h"

extern "C" {
#include <libavutil/rational.h>
}

struct AVCodecContext;
struct AVFormatContext;

namespace loopstore::media {

// An MPEG-TS muxer of one stream writing into memory, for encoded pictures.
// Timestamps are written in the 90 kHz clock of MPEG-TS.
//
// Owns its format context and buffer; on a constructor failure nothing is
// left. One thread at a time.
class MemoryTsMuxer {
  public:
    // Throws MediaError when libavformat refuses the codec.
    explicit MemoryTsMuxer(const AVCodecContext& codec);
    ~MemoryTsMuxer();
    MemoryTsMuxer(const MemoryTsMuxer&) = delete;
    MemoryTsMuxer& operator=(const MemoryTsMuxer&) = delete;

    AVRational TimeBase() const;
    // Writes a packet whose timestamps are in TimeBase(); takes its data.
    void Write(Packet& packet);
    // Writes the trailer; returns the bytes. Only once.
    std::string Finish();

  private:
    void Open(const AVCodecContext& codec);
    void Free();

    AVFormatContext* format_ = nullptr;
};

}  // namespace loopstore::media
