#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <utility>

#include "Host/Media/Packet.h"

struct AVFormatContext;
struct AVIOContext;
struct AVStream;

namespace loopstore::media {

// Reads an MPEG transport stream from a read function (no file, no copy of
// the input) and hands out its packets with libavformat's demuxer. A
// packet's `pos` is its byte offset in what the read function returned.
//
// Owns the format and I/O contexts. An exception thrown by the read function
// stops the demuxer and is thrown again by the call that was reading. One
// thread at a time.
class Demuxer {
  public:
    // Fills up to `size` bytes of `buffer`; returns how many, 0 at the end.
    using ReadFunction = std::function<size_t(uint8_t* buffer, size_t size)>;

    // Opens the stream and reads ahead until its streams are known. Throws
    // MediaError when the bytes are not MPEG-TS or hold no stream.
    explicit Demuxer(ReadFunction read) : Demuxer(std::move(read), "mpegts") {}
    // The same with the libavformat demuxer `format`, or, when it is null,
    // the one that recognises the first bytes. The input cannot seek:
    // containers that need to (MP4 with its index at the end) are refused.
    Demuxer(ReadFunction read, const char* format);
    ~Demuxer();
    Demuxer(const Demuxer&) = delete;
    Demuxer& operator=(const Demuxer&) = delete;

    // The next packet into `packet`; false at the end of the input.
    bool Read(Packet& packet);

    unsigned StreamCount() const;
    const AVStream& Stream(unsigned index) const;
    // The stream whose key frames a clip starts on: the first video stream,
    // else stream 0.
    int ReferenceStream() const;
    // True for an audio or video stream of a known codec: what a clip keeps
    // (data and subtitle streams of a transport stream have no place in MP4).
    bool IsAudioOrVideo(unsigned index) const;

  private:
    // Frees the contexts; also the constructor's way out on failure.
    void Close();
    static int ReadPacket(void* opaque, uint8_t* buffer, int size);
    // Throws the read function's exception, else MediaError for `code`.
    [[noreturn]] void Fail(int code, const char* what);

    ReadFunction read_;
    std::exception_ptr readError_;
    AVIOContext* io_ = nullptr;
    AVFormatContext* format_ = nullptr;
};

}  // namespace loopstore::media
