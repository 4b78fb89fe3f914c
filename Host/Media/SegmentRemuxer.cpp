#include "Host/Media/SegmentRemuxer.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "Host/Media/Demuxer.h"
#include "Host/Media/MediaError.h"
#include "Host/Media/Muxer.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace loopstore::media {

namespace {

constexpr size_t kPacketSize = 188;
constexpr char kSyncByte = 0x47;

// Input stream -> output stream, for the audio and video streams.
std::map<int, int> AddStreams(const Demuxer& input, Muxer& output) {
    std::map<int, int> streams;
    for (unsigned i = 0; i < input.StreamCount(); ++i) {
        if (input.IsAudioOrVideo(i))
            streams[static_cast<int>(i)] = output.AddStream(input.Stream(i));
    }
    return streams;
}

// Gives every packet a decoding time. Containers without one (Matroska)
// leave it out of the first packets of a stream with B-frames, until the
// demuxer knows the reordering delay: those are placed a frame apart before
// the first packet that has one. Later gaps follow the previous packet.
class DecodingTimes {
  public:
    // Takes `packet`; the packets whose times are known, in order, go to
    // `ready`.
    void Add(Packet packet, std::vector<Packet>& ready) {
        Stream& stream = streams_[packet->stream_index];
        if (packet->dts == AV_NOPTS_VALUE && !stream.started) {
            stream.waiting.push_back(std::move(packet));
            return;
        }
        if (packet->dts == AV_NOPTS_VALUE)
            packet->dts = std::min(packet->pts, stream.lastDts + stream.lastDuration);
        if (!stream.started)
            Release(stream, packet->dts, std::max<int64_t>(1, packet->duration), ready);
        stream.started = true;
        stream.lastDts = packet->dts;
        stream.lastDuration = std::max<int64_t>(1, packet->duration);
        ready.push_back(std::move(packet));
    }
    // The packets of streams that never gave a decoding time, shown in order.
    void Finish(std::vector<Packet>& ready) {
        for (auto& [index, stream] : streams_)
            for (Packet& packet : stream.waiting)
                if (packet->pts != AV_NOPTS_VALUE) {
                    packet->dts = packet->pts;
                    ready.push_back(std::move(packet));
                }
        streams_.clear();
    }

  private:
    struct Stream {
        bool started = false;
        int64_t lastDts = 0;
        int64_t lastDuration = 1;
        std::vector<Packet> waiting;
    };

    static void Release(Stream& stream, int64_t firstDts, int64_t step,
                        std::vector<Packet>& ready) {
        const auto count = static_cast<int64_t>(stream.waiting.size());
        for (int64_t i = 0; i < count; ++i) {
            Packet& packet = stream.waiting[static_cast<size_t>(i)];
            packet->dts = firstDts - (count - i) * step;
            if (packet->pts == AV_NOPTS_VALUE || packet->pts < packet->dts)
                packet->pts = packet->dts;
            ready.push_back(std::move(packet));
        }
        stream.waiting.clear();
    }

    std::map<int, Stream> streams_;
};

void WriteAll(std::vector<Packet>& ready, const Demuxer& input, Muxer& output,
              const std::map<int, int>& streams) {
    for (Packet& packet : ready) {
        const int from = packet->stream_index;
        const int to = streams.at(from);
        av_packet_rescale_ts(packet.get(), input.Stream(from).time_base, output.TimeBase(to));
        packet->stream_index = to;
        packet->pos = -1;
        output.Write(packet);
    }
    ready.clear();
}

void CopyPackets(Demuxer& input, Muxer& output, const std::map<int, int>& streams) {
    DecodingTimes times;
    std::vector<Packet> ready;
    Packet packet;
    while (input.Read(packet)) {
        if (streams.count(packet->stream_index) == 0)
            continue;
        if (packet->dts == AV_NOPTS_VALUE && packet->pts == AV_NOPTS_VALUE)
            continue;  // nowhere to place it
        times.Add(std::exchange(packet, Packet()), ready);
        WriteAll(ready, input, output, streams);
    }
    times.Finish(ready);
    WriteAll(ready, input, output, streams);
}

}  // namespace

bool SegmentRemuxer::IsMpegTs(std::string_view bytes) {
    if (bytes.empty() || bytes.size() % kPacketSize != 0)
        return false;
    for (size_t at = 0; at < bytes.size(); at += kPacketSize)
        if (bytes[at] != kSyncByte)
            return false;
    return true;
}

std::string SegmentRemuxer::ToMpegTs(std::string_view bytes, const std::string& name) {
    size_t used = 0;
    Demuxer input(
        [&](uint8_t* buffer, size_t size) {
            const size_t n = std::min(size, bytes.size() - used);
            std::memcpy(buffer, bytes.data() + used, n);
            used += n;
            return n;
        },
        nullptr);
    std::string out;
    Muxer output(
        "mpegts",
        [&out](const uint8_t* data, size_t size) {
            out.append(reinterpret_cast<const char*>(data), size);
        },
        name);
    const std::map<int, int> streams = AddStreams(input, output);
    if (streams.empty())
        throw MediaError(name + " holds no audio or video stream");
    output.Begin();
    CopyPackets(input, output, streams);
    output.Finish();
    return out;
}

}  // namespace loopstore::media
