// Writes the seed inputs of every fuzz target into <root>/<target>/<name>,
// made with the project's own code wherever it has some: chunk files by
// DataChunkFileAppender, property blocks by ChunkPropertyBlock, time texts by
// TimePoint, protobuf requests by their messages. Also the regression inputs
// of the bugs fuzzing found. Deterministic: running it again rewrites the same
// bytes.
//
//     fuzz_seeds fuzz/corpus

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "Host/Rpc/Loopstore.pb.h"
#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/ChunkPropertyBlock.h"
#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/BlockConfiguration.h"
#include "fuzz/Support/ChunkFileInput.h"
#include "fuzz/Support/FuzzInput.h"
#include "fuzz/Support/MemoryFile.h"
#include "fuzz/Support/QuietLogs.h"

namespace {

using loopstore::fuzz::AppendU64;
using loopstore::fuzz::ChunkFileInput;
using Moreld::File::ChunkFileHeader;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;

class SeedWriter {
  public:
    explicit SeedWriter(std::filesystem::path root) : root_(std::move(root)) {}

    void Write(const std::string& target, const std::string& name, const std::string& bytes) {
        std::filesystem::create_directories(root_ / target);
        std::ofstream(root_ / target / name, std::ios::binary | std::ios::trunc) << bytes;
    }

  private:
    std::filesystem::path root_;
};

std::vector<DataChunk> SampleChunks() {
    const TimePoint start = TimePoint::FromString("2026-11-21T04:33:00Z");
    const TimePoint frame = TimePoint::FromMilliseconds(40);
    std::vector<DataChunk> chunks;
    chunks.emplace_back(start, frame, "first payload");
    chunks.emplace_back(start + frame, frame, std::string(40, 'v'));
    chunks.back().SetProperty("tav-chunk-number", "1");
    chunks.emplace_back(start + frame + frame, frame, "");
    chunks.back().SetProperty("a", "b");
    chunks.back().SetProperty("tav-accumulated-duration", "80000000");
    return chunks;
}

// A chunk file of generation 8 holding `chunks`, with `slack` zero bytes after
// the records, as the appender writes it.
std::string ChunkFile(const std::vector<DataChunk>& chunks, uint64_t slack) {
    uint64_t size = ChunkFileHeader::kSize + slack;
    for (const DataChunk& chunk : chunks)
        size += chunk.GetSizeOnFile();
    std::string file(size, '\0');
    ChunkFileHeader(7).EncodeTo(file.data());
    loopstore::fuzz::MemoryFile memory;
    memory.Write(file);
    {
        Moreld::File::DataChunkFileAppender appender(memory.Path(), false, size);
        appender.SetNoFlush(true);
        for (const DataChunk& chunk : chunks)
            appender.Append(chunk);
    }
    std::ifstream in(memory.Path(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void ChunkFileSeeds(SeedWriter& out) {
    const std::vector<DataChunk> chunks = SampleChunks();
    const std::string file = ChunkFile(chunks, 64);
    const uint64_t second = ChunkFileHeader::kSize + chunks[0].GetSizeOnFile();
    std::string torn = file;
    torn[second + 60] ^= 0x55;  // inside the second record
    std::string stale = file;
    ChunkFileHeader(9).EncodeTo(stale.data());
    for (const char* target : {"chunk_file_reader", "chunk_record_scanner"}) {
        out.Write(target, "three-records", ChunkFileInput{0, second, file}.Encode());
        out.Write(target, "three-records-sealed",
                  ChunkFileInput{ChunkFileInput::kSeal, second, file}.Encode());
        out.Write(target, "torn-second-record", ChunkFileInput{0, second, torn}.Encode());
        out.Write(target, "stale-generation", ChunkFileInput{0, 16, stale}.Encode());
        out.Write(target, "no-header", ChunkFileInput{0, 0, std::string(64, '\0')}.Encode());
    }
    // Scanner limits a little below and above the file's size.
    out.Write("chunk_record_scanner", "limit-below", ChunkFileInput{3, 70, file}.Encode());
    out.Write("chunk_record_scanner", "limit-above",
              ChunkFileInput{3, (uint64_t{1} << 63) | 70, file}.Encode());
}

void PropertyBlockSeeds(SeedWriter& out) {
    std::vector<std::pair<std::string, DataChunk::Properties>> blocks = {
        {"empty", {}},
        {"one", {{"tav-chunk-number", "42"}}},
        {"several", {{"", ""}, {"a", "b"}, {"tav-accumulated-duration", "80000000"}}},
    };
    for (const auto& [name, properties] : blocks) {
        std::string block;
        Moreld::File::ChunkPropertyBlock::AppendTo(properties, block);
        out.Write("chunk_property_block", name, block);
        if (!block.empty())
            out.Write("chunk_property_block", name + "-truncated",
                      block.substr(0, block.size() - 1));
    }
}

void ProtocolChunkSeeds(SeedWriter& out) {
    const std::vector<DataChunk> chunks = SampleChunks();
    for (size_t i = 0; i < chunks.size(); ++i) {
        Protocol::Chunk message;
        Moreld::Plexa::Converter::Fill(chunks[i], message, {"a", "tav-chunk-number"});
        out.Write("protocol_chunk", "chunk-" + std::to_string(i), message.SerializeAsString());
    }
    Protocol::Chunk odd;
    odd.mutable_timepoint()->set_nanoseconds(INT64_MAX);
    odd.mutable_duration()->set_nanoseconds(-1);
    for (const char* value : {"1", "2"}) {
        Protocol::Property* property = odd.add_properties();
        property->set_key("twice");
        property->set_value(value);
    }
    out.Write("protocol_chunk", "extreme-times-key-twice", odd.SerializeAsString());
}

// One transport packet of `pid` with `fill` bytes, and a PCR when given.
std::string TsPacket(int pid, char fill, std::optional<uint64_t> pcrTicks = std::nullopt) {
    std::string packet(188, fill);
    packet[0] = 0x47;
    packet[1] = static_cast<char>(pid >> 8 & 0x1f);
    packet[2] = static_cast<char>(pid & 0xff);
    packet[3] = static_cast<char>(pcrTicks ? 0x30 : 0x10);
    if (pcrTicks) {
        const uint64_t base = *pcrTicks / 300;
        const uint64_t extension = *pcrTicks % 300;
        const uint64_t field = base << 15 | uint64_t{0x3f} << 9 | extension;  // 48 bits
        packet[4] = 7;     // adaptation field length
        packet[5] = 0x10;  // PCR flag
        for (int i = 0; i < 6; ++i)
            packet[6 + i] = static_cast<char>(field >> (40 - 8 * i));
    }
    return packet;
}

// The chunker's settings (size limit, nominal duration in ms, feed size) and a
// stream of `count` packets; `pcrOf(i)` gives packet i's PCR, if any.
template <typename PcrOf>
std::string TsInput(uint16_t maxSize, uint8_t durationMs, uint8_t feed, int count, PcrOf pcrOf) {
    std::string input = {static_cast<char>(maxSize & 0xff), static_cast<char>(maxSize >> 8),
                         static_cast<char>(durationMs - 1), static_cast<char>(feed)};
    for (int i = 0; i < count; ++i) {
        const std::optional<std::pair<int, uint64_t>> pcr = pcrOf(i);
        input += pcr ? TsPacket(pcr->first, 'v', pcr->second) : TsPacket(0x100, 'p');
    }
    return input;
}

void MpegTsSeeds(SeedWriter& out) {
    using Pcr = std::optional<std::pair<int, uint64_t>>;
    constexpr uint64_t kTicksPerMs = 27'000;
    out.Write("mpegts_chunker", "clock-every-4-packets", TsInput(4096, 40, 255, 40, [](int i) {
                  return i % 4 == 0
                             ? Pcr({0x100, 5000 * kTicksPerMs + i * 2'500 * kTicksPerMs / 1000})
                             : Pcr();
              }));
    out.Write("mpegts_chunker", "no-clock", TsInput(1000, 40, 7, 30, [](int) { return Pcr(); }));
    // Regressions: the size limit must hold whatever the clock does.
    out.Write("mpegts_chunker", "one-pcr-then-none", TsInput(376, 40, 255, 30, [](int i) {
                  return i == 0 ? Pcr({0x100, 1000}) : Pcr();
              }));
    out.Write("mpegts_chunker", "same-pcr-repeated", TsInput(376, 40, 255, 30, [](int) {
                  return Pcr({0x100, 7 * kTicksPerMs});
              }));
    out.Write("mpegts_chunker", "clock-moves-to-another-pid", TsInput(376, 40, 255, 30, [](int i) {
                  return Pcr({i < 3 ? 0x100 : 0x101, (1000 + uint64_t(i)) * kTicksPerMs});
              }));
    // Regression: a size cut while the clock jumped 12 hours ahead and back
    // gave the next chunk the whole jump as its duration.
    out.Write("mpegts_chunker", "clock-jumps-one-packet-chunks",
              TsInput(188, 40, 255, 8, [](int i) {
                  return Pcr({0x100, i == 4 ? 1'192'485'037'317 : 7 * kTicksPerMs});
              }));
    // Key frames marked on the clock's stream every 6 packets, audio frames
    // marked on another: cuts wait for a key frame, within the size limit.
    std::string keyFrames = TsInput(1504, 10, 255, 40, [](int i) {
        return Pcr({i % 2 == 0 ? 0x100 : 0x101, (1000 + uint64_t(i)) * kTicksPerMs});
    });
    for (int i = 0; i < 40; ++i) {
        if (i % 2 == 1 || i % 6 == 0) {
            keyFrames[4 + i * 188 + 1] |= 0x40;  // unit start
            keyFrames[4 + i * 188 + 5] |= 0x40;  // random access
        }
    }
    out.Write("mpegts_chunker", "key-frames-marked", keyFrames);
    std::string garbage = TsInput(752, 40, 61, 8, [](int) { return Pcr(); });
    garbage.insert(4 + 3 * 188, "xx\x47garbage\x47");
    out.Write("mpegts_chunker", "garbage-between-packets", garbage);
}

std::string WithU64(uint8_t first, uint64_t value, const std::string& text) {
    std::string input(1, static_cast<char>(first));
    AppendU64(input, value);
    return input + text;
}

void TimeTextSeeds(SeedWriter& out) {
    const std::vector<std::pair<std::string, TimePoint>> instants = {
        {"now", TimePoint::FromString("2026-11-21T04:33:00.123456789Z")},
        {"epoch", TimePoint()},
        {"before-epoch", TimePoint::FromNanoseconds(-86'400'000'000'001)},
        {"first", TimePoint::FromNanoseconds(INT64_MIN)},
        {"last", TimePoint::FromNanoseconds(INT64_MAX)},
    };
    for (const auto& [name, tp] : instants)
        out.Write("time_point_text", name, tp.ToString());
    out.Write("time_point_text", "offset", "2027-01-15T09:00:00.5+01:00");
    // Regressions: instants beyond 64-bit nanoseconds, a day February lacks.
    out.Write("time_point_text", "out-of-range-2300", "2300-01-01T00:00:00Z");
    out.Write("time_point_text", "out-of-range-1600", "1600-01-01T00:00:00Z");
    out.Write("time_point_text", "february-31", "2026-02-31T00:00:00Z");

    const uint64_t now =
        static_cast<uint64_t>(TimePoint::FromSeconds(1'800'000'000).ToNanoseconds());
    const std::vector<std::tuple<std::string, uint8_t, std::string>> cli = {
        {"instant-now", 0, "now"},
        {"instant-relative", 0, "-10m"},
        {"instant-raw", 0, "123ns"},
        {"instant-iso", 0, "2027-01-15T08:00:00Z"},
        {"duration", 1, "1h30m1.5s40ms"},
        {"signed-duration", 2, "-10m"},
        {"range", 3, "-1h\n+1h"},
        // Regressions: sums and lengths beyond 64 bits.
        {"relative-overflow", 0, "+2222222h"},
        {"range-longer-than-292-years", 3, "1678-01-01T00:00:00Z\n2262-01-01T00:00:00Z"},
    };
    for (const auto& [name, parser, text] : cli)
        out.Write("cli_time_parser", name, WithU64(parser, now, text));
}

void SizeAndBlockSeeds(SeedWriter& out) {
    const std::vector<std::tuple<std::string, char, std::string>> sizes = {
        {"binary", 0, "16M"},
        {"decimal", 0, "5MB"},
        {"largest", 0, "9223372036854775807"},
        {"signed", 1, "-16M"},
        {"bit-rate", 2, "2.5Mbps"},
        {"too-large", 0, "8388608T"},
        {"bit-rate-too-long", 2, std::string(400, '9')},
    };
    for (const auto& [name, parser, text] : sizes)
        out.Write("cli_size_parser", name, std::string(1, parser) + text);
    for (const auto& configuration :
         {BlockConfiguration(0, 1), BlockConfiguration(104857600, 0), BlockConfiguration(1000, 1)})
        out.Write("block_configuration_text", configuration.ToString(), configuration.ToString());
    out.Write("block_configuration_text", "negative", " -1_5");
    out.Write("block_configuration_text", "no-separator", "12");
}

// A stream for the RPC target: the call, then each message with its length.
std::string Stream(uint8_t call, const std::vector<std::string>& messages) {
    std::string input(1, static_cast<char>(call));
    for (const std::string& message : messages)
        input += std::string{static_cast<char>(message.size() & 0xff),
                             static_cast<char>(message.size() >> 8)} +
                 message;
    return input;
}

void GrpcSeeds(SeedWriter& out) {
    Protocol::TrackParameters create;
    create.set_id(0);
    create.set_size(int64_t{1} << 30);
    out.Write("grpc_requests", "create-track", std::string(1, 0) + create.SerializeAsString());
    loopstore::rpc::ProtectRequest protect;
    protect.set_track_id(1);
    protect.mutable_from()->set_nanoseconds(1'800'000'000'000'000'000);
    protect.mutable_duration()->set_nanoseconds(3'600'000'000'000);
    out.Write("grpc_requests", "protect", std::string(1, 12) + protect.SerializeAsString());
    // Near the last representable instant, where arithmetic on times overflows.
    constexpr int64_t kLate = INT64_MAX - 3'600'000'000'000;
    protect.mutable_from()->set_nanoseconds(kLate);
    out.Write("grpc_requests", "protect-late", std::string(1, 12) + protect.SerializeAsString());
    // Regression: a protection ending past 2262 reached the storage's arithmetic.
    protect.mutable_duration()->set_nanoseconds(2 * 3'600'000'000'000);
    out.Write("grpc_requests", "protect-ends-past-2262",
              std::string(1, 12) + protect.SerializeAsString());
    loopstore::rpc::Range range;
    range.set_track_id(1);
    range.mutable_to()->set_nanoseconds(1);
    out.Write("grpc_requests", "number-of-chunks", std::string(1, 10) + range.SerializeAsString());

    loopstore::rpc::WriteRequest open, chunk;
    open.mutable_open()->set_track_id(1);
    Moreld::Plexa::Converter::Fill(SampleChunks()[1], *chunk.mutable_chunk(), {"tav-chunk-number"});
    out.Write("grpc_requests", "write-stream",
              Stream(22, {open.SerializeAsString(), chunk.SerializeAsString()}));
    chunk.mutable_chunk()->mutable_timepoint()->set_nanoseconds(kLate);
    out.Write("grpc_requests", "write-stream-late",
              Stream(22, {open.SerializeAsString(), chunk.SerializeAsString()}));
    // Regression: the write handler added time point and duration unchecked.
    chunk.mutable_chunk()->mutable_duration()->set_nanoseconds(2 * 3'600'000'000'000);
    out.Write("grpc_requests", "write-chunk-ends-past-2262",
              Stream(22, {open.SerializeAsString(), chunk.SerializeAsString()}));
    loopstore::rpc::WriteRequest batch;
    Moreld::Plexa::Converter::Fill(SampleChunks()[0], *batch.mutable_batch()->add_chunks(),
                                   {"tav-chunk-number"});
    Moreld::Plexa::Converter::Fill(SampleChunks()[1], *batch.mutable_batch()->add_chunks(),
                                   {"tav-chunk-number"});
    out.Write("grpc_requests", "write-stream-batch",
              Stream(22, {open.SerializeAsString(), batch.SerializeAsString()}));
    loopstore::rpc::ReadRequest session, next;
    session.mutable_open()->set_track_id(1);
    session.mutable_at()->set_nanoseconds(5);
    next.set_operation(loopstore::rpc::ReadRequest::GET_NEXT_CHUNK);
    next.mutable_keys()->add_keys("tav-chunk-number");
    out.Write("grpc_requests", "read-session",
              Stream(23, {session.SerializeAsString(), next.SerializeAsString()}));
    loopstore::rpc::ExportRequest exportRange;
    exportRange.set_track_id(1);
    exportRange.mutable_from()->set_nanoseconds(10);
    exportRange.mutable_to()->set_nanoseconds(5);
    out.Write("grpc_requests", "export-backwards", Stream(24, {exportRange.SerializeAsString()}));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: fuzz_seeds CORPUS_ROOT   (writes CORPUS_ROOT/<target>/<seed>)\n";
        return 2;
    }
    loopstore::fuzz::QuietLogs();
    SeedWriter out(argv[1]);
    ChunkFileSeeds(out);
    PropertyBlockSeeds(out);
    ProtocolChunkSeeds(out);
    MpegTsSeeds(out);
    TimeTextSeeds(out);
    SizeAndBlockSeeds(out);
    GrpcSeeds(out);
    return 0;
}
