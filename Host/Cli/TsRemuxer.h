#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <string>
#include <vector>

namespace loopstore::cli {

// Remuxes (never transcodes) the packets of a demuxed input into one
// continuous MPEG transport stream held in memory, taken out chunk by chunk.
// Each chunk taken after the first starts with the stream tables again (PAT,
// PMT), so that a player can start at any chunk.
//
// Copies the audio, video and subtitle streams of `input`; others are left
// out. Owns its muxer. One thread.
class TsRemuxer {
  public:
    // Throws CliError when the muxer refuses the streams.
    explicit TsRemuxer(const AVFormatContext& input);
    ~TsRemuxer();
    TsRemuxer(const TsRemuxer&) = delete;
    TsRemuxer& operator=(const TsRemuxer&) = delete;

    // Whether packets of the input stream `index` are kept.
    bool Keeps(int index) const;
    // Muxes a packet of the input (time stamps in `timeBase`); the packet is
    // not taken over. Throws CliError when the muxer refuses it.
    void Write(AVPacket& packet, AVRational timeBase);
    // The bytes muxed since the last call, everything the muxer held back
    // included.
    std::string Take();

  private:
    static int Append(void* self, uint8_t* bytes, int size);
    void Release();

    AVFormatContext* output_ = nullptr;
    AVIOContext* io_ = nullptr;
    std::vector<int> streams_;  // output index per input stream, -1 for none
    std::string bytes_;
};

}  // namespace loopstore::cli
