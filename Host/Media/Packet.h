#pragma once

extern "C" {
#include <libavcodec/packet.h>
}

namespace loopstore::media {

// Owns one AVPacket (and the reference to its data). Move-only.
class Packet {
  public:
    Packet();
    ~Packet();
    Packet(Packet&& other) noexcept;
    Packet& operator=(Packet&& other) noexcept;
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    AVPacket* get() const { return packet_; }
    AVPacket* operator->() const { return packet_; }
    // Drops the data; the packet can be filled again.
    void Clear();

  private:
    AVPacket* packet_;
};

}  // namespace loopstore::media
