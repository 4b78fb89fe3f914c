#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "Host/Media/Packet.h"

extern "C" {
#include <libavutil/rational.h>
}

struct AVDictionary;
struct AVFormatContext;
struct AVIOContext;
struct AVStream;

namespace loopstore::media {

// Writes packets into a file of one container format ("mp4", "mpegts") with
// libavformat, copying streams as they are (no transcoding), or hands the
// bytes to a write function as they come.
//
// Owns the format context and the open file. A muxer destroyed before
// Finish() closes the file without its trailer: the caller removes it. One
// thread at a time.
class Muxer {
  public:
    // Takes `size` bytes of the output, in order. An exception it throws
    // stops the muxer and is thrown again by the call that was writing.
    using WriteFunction = std::function<void(const uint8_t* bytes, size_t size)>;

    // Creates `path` (a URL libavformat opens, "pipe:1" for stdout) for the
    // muxer `formatName`. Throws MediaError when either is refused.
    Muxer(const std::string& formatName, const std::string& path);
    // Muxes into `write`; `name` stands for the output in error messages.
    // The output cannot seek: an MP4 must be fragmented (the option
    // movflags=frag_keyframe+empty_moov).
    Muxer(const std::string& formatName, WriteFunction write, const std::string& name);
    ~Muxer();
    Muxer(const Muxer&) = delete;
    Muxer& operator=(const Muxer&) = delete;

    // Adds a stream with the codec parameters of `input`; returns its index.
    // Only before Begin().
    int AddStream(const AVStream& input);
    // Sets an option of the muxer (libavformat's name and value) for Begin().
    void SetOption(const std::string& key, const std::string& value);
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
    static int WritePacket(void* opaque, uint8_t* bytes, int size);
    // Throws the write function's exception, else MediaError "<what>: ...".
    int Check(int code, const std::string& what);

    const std::string path_;
    AVFormatContext* format_ = nullptr;
    WriteFunction write_;
    std::exception_ptr writeError_;
    AVDictionary* options_ = nullptr;
};

}  // namespace loopstore::media
