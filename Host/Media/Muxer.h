#pragma once

#include <string>
#include <vector>

#include "Host/Media/Packet.h"

extern "C" {
#include <libavutil/rational.h>
}

struct AVFormatContext;
struct AVStream;

namespace loopstore::media {

// Writes packets into a file of one container format ("mp4", "mpegts") with
// libavformat, copying streams as they are (no transcoding).
//
// Owns the format context and the open file. A muxer destroyed before
// Finish() closes the file without its trailer: the caller removes it. One
// thread at a time.
class Muxer {
  public:
    // Creates `path` (a URL libavformat opens, "pipe:1" for stdout) for the
    // muxer `formatName`. Throws MediaError when either is refused.
    Muxer(const std::string& formatName, const std::string& path);
    ~Muxer();
    Muxer(const Muxer&) = delete;
    Muxer& operator=(const Muxer&) = delete;

    // Adds a stream with the codec parameters of `input`; returns its index.
    // Only before Begin().
    int AddStream(const AVStream& input);
    // Writes the header; the output time bases are known after it.
    void Begin();
    AVRational TimeBase(int stream) const;
    // Writes a packet whose timestamps are in the output stream's time base;
    // takes its data. Throws MediaError on a write failure.
    void Write(Packet& packet);
    // Writes the trailer and closes the file.
    void Finish();

  private:
    void Close();

    const std::string path_;
    AVFormatContext* format_ = nullptr;
};

}  // namespace loopstore::media
