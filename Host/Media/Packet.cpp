#include "Host/Media/Packet.h"

#include <new>
#include <utility>

namespace loopstore::media {

Packet::Packet() : packet_(av_packet_alloc()) {
    if (packet_ == nullptr)
        throw std::bad_alloc();
}

Packet::~Packet() {
    av_packet_free(&packet_);
}

Packet::Packet(Packet&& other) noexcept : packet_(std::exchange(other.packet_, nullptr)) {}

Packet& Packet::operator=(Packet&& other) noexcept {
    std::swap(packet_, other.packet_);
    return *this;
}

void Packet::Clear() {
    av_packet_unref(packet_);
}

}  // namespace loopstore::media
