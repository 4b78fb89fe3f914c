#include "Host/Hls/PlaylistWriter.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "Platform/Time/TimePoint.h"

namespace loopstore::hls {

namespace {

constexpr int64_t kNsPerMs = 1'000'000;

void Header(std::ostringstream& out, int64_t targetDuration, uint64_t sequence) {
    out << "#EXTM3U\n"
        << "#EXT-X-VERSION:3\n"
        << "#EXT-X-TARGETDURATION:" << targetDuration << "\n"
        << "#EXT-X-MEDIA-SEQUENCE:" << sequence << "\n";
}

// Seconds with millisecond precision, as EXTINF takes them.
std::string Seconds(int64_t nanoseconds) {
    const int64_t ms = (nanoseconds + kNsPerMs / 2) / kNsPerMs;
    char text[32];
    std::snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(ms / 1000),
                  static_cast<long long>(ms % 1000));
    return text;
}

void Segments(std::ostringstream& out, const Protocol::ChunkSpans& chunks) {
    const Protocol::ChunkSpan* previous = nullptr;
    for (const Protocol::ChunkSpan& chunk : chunks.chunks()) {
        const int64_t start = chunk.timepoint().nanoseconds();
        if (previous != nullptr && !PlaylistWriter::Continues(*previous, chunk))
            out << "#EXT-X-DISCONTINUITY\n";
        if (previous == nullptr || !PlaylistWriter::Continues(*previous, chunk))
            out << "#EXT-X-PROGRAM-DATE-TIME:" << PlaylistWriter::DateTime(start) << "\n";
        out << "#EXTINF:" << Seconds(chunk.duration().nanoseconds()) << ",\n"
            << "segments/" << start << ".ts\n";
        previous = &chunk;
    }
}

}  // namespace

bool PlaylistWriter::Continues(const Protocol::ChunkSpan& previous,
                               const Protocol::ChunkSpan& next) {
    const int64_t end = previous.timepoint().nanoseconds() + previous.duration().nanoseconds();
    const int64_t step = next.timepoint().nanoseconds() - end;
    return step < kGapToleranceNs && step > -kGapToleranceNs;
}

int64_t PlaylistWriter::TargetDuration(const Protocol::ChunkSpans& chunks) {
    int64_t longestMs = 0;
    for (const Protocol::ChunkSpan& chunk : chunks.chunks())
        longestMs = std::max(longestMs, (chunk.duration().nanoseconds() + kNsPerMs / 2) / kNsPerMs);
    return std::max<int64_t>(1, (longestMs + 999) / 1000);
}

std::string PlaylistWriter::Vod(const Protocol::ChunkSpans& chunks) {
    std::ostringstream out;
    Header(out, TargetDuration(chunks), chunks.chunks(0).sequence());
    out << "#EXT-X-PLAYLIST-TYPE:VOD\n";
    Segments(out, chunks);
    out << "#EXT-X-ENDLIST\n";
    return out.str();
}

std::string PlaylistWriter::Live(const Protocol::ChunkSpans& window, uint64_t discontinuities,
                                 int64_t targetDuration) {
    std::ostringstream out;
    Header(out, targetDuration, window.chunks(0).sequence());
    out << "#EXT-X-DISCONTINUITY-SEQUENCE:" << discontinuities << "\n";
    Segments(out, window);
    return out.str();
}

std::string PlaylistWriter::DateTime(int64_t nanoseconds) {
    // "YYYY-MM-DDTHH:MM:SS.mmm" of the nanosecond form, then the zone.
    return Moreld::Time::TimePoint::FromNanoseconds(nanoseconds).ToString().substr(0, 23) + "Z";
}

}  // namespace loopstore::hls
