#include "Host/Cli/RecordCommand.h"

#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/MpegTsChunkSource.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/Recorder.h"
#include "Host/Cli/SizeParser.h"
#include "Host/Cli/StreamChunkSource.h"
#include "Host/Cli/SyntheticChunkSource.h"
#include "Host/Cli/TimeParser.h"

namespace loopstore::cli {

using Moreld::Time::TimePoint;

namespace {

struct Args {
    int64_t track = 0;
    std::string input = "-";
    std::string chunkDuration = "40ms";
    std::string chunkSize = "256K";
    bool mpegts = false;
    bool synthetic = false;
    std::string bitRate = "4M";
    std::string duration = "10s";
    std::string start;
};

// Enough packets to tell MPEG-TS from other bytes.
constexpr size_t kProbeSize = 8 * MpegTsChunker::kPacketSize;

std::string ReadHead(std::istream& in) {
    std::string head(kProbeSize, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(in.gcount()));
    return head;
}

std::unique_ptr<IChunkSource> OpenSource(const Args& a, std::istream* in, bool& mpegts) {
    const TimePoint chunkDuration = TimeParser::ParseDuration(a.chunkDuration);
    if (a.synthetic)
        return std::make_unique<SyntheticChunkSource>(a.track, SizeParser::ParseBitRate(a.bitRate),
                                                      chunkDuration,
                                                      TimeParser::ParseDuration(a.duration));
    const uint64_t chunkSize = SizeParser::ParseSize(a.chunkSize);
    if (chunkSize == 0)
        throw CliError("bad size '" + a.chunkSize + "': a chunk holds at least one byte");
    std::string head = ReadHead(*in);
    mpegts = a.mpegts || MpegTsChunker::LooksLikeMpegTs(head);
    if (mpegts)
        return std::make_unique<MpegTsChunkSource>(*in, std::move(head), chunkSize, chunkDuration);
    return std::make_unique<StreamChunkSource>(*in, std::move(head), chunkSize, chunkDuration);
}

void Record(const ClientCommand<Args>& c) {
    const Args& a = c.extra;
    std::optional<TimePoint> start;
    if (!a.start.empty())
        start = TimeParser::ParseInstant(a.start, TimePoint::Now());
    std::ifstream file;
    std::istream* in = &std::cin;
    if (!a.synthetic && a.input != "-") {
        file.open(a.input, std::ios::binary);
        if (!file)
            throw CliError("cannot open input file " + a.input);
        in = &file;
    }
    bool mpegts = false;
    std::unique_ptr<IChunkSource> source = OpenSource(a, in, mpegts);
    auto client = c.client.Connect();
    const auto began = std::chrono::steady_clock::now();
    const Recorder::Summary s = Recorder(*client, a.track).Run(*source, start);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    std::ostringstream text;
    text << "recorded " << s.chunks << " chunks, " << Output::Bytes(s.bytes) << " on track "
         << a.track << ": " << s.first << " .. " << s.end << " (" << (mpegts ? "MPEG-TS, " : "")
         << Output::Rate(s.bytes, seconds) << ")";
    if (s.stored != s.chunks)
        text << "; " << s.stored << " of them stored";
    if (s.dropped != 0)
        text << "; " << s.dropped << " bytes dropped (not MPEG-TS packets)";
    Output(c.client.json, std::cout)
        .Print({{"track_id", a.track},
                {"chunks", s.chunks},
                {"stored", s.stored},
                {"bytes", s.bytes},
                {"dropped_bytes", s.dropped},
                {"from", s.first.ToString()},
                {"to", s.end.ToString()},
                {"mpegts", mpegts},
                {"seconds", seconds}},
               text.str());
}

}  // namespace

void RecordCommand::Register(CLI::App& app) {
    auto c = std::make_shared<ClientCommand<Args>>();
    Args& a = c->extra;
    CLI::App* cmd = app.add_subcommand(
        "record", "Record a stream into a track: a file, standard input or a synthetic stream");
    cmd->add_option("--track", a.track, "Track id")->required();
    cmd->add_option("--input", a.input, "Input file, or - for standard input")
        ->capture_default_str();
    cmd->add_option("--chunk-duration", a.chunkDuration,
                    "Time each chunk covers (for MPEG-TS with a clock: at least this much)")
        ->capture_default_str();
    cmd->add_option("--chunk-size", a.chunkSize,
                    "Bytes per chunk (MPEG-TS: rounded down to whole 188-byte packets)")
        ->capture_default_str();
    cmd->add_flag("--mpegts", a.mpegts,
                  "The input is MPEG-TS (also detected by sync bytes every 188 bytes)");
    cmd->add_flag("--synthetic", a.synthetic, "Record a generated stream instead of an input");
    cmd->add_option("--bitrate", a.bitRate, "With --synthetic: bits per second (4M, 500k)")
        ->capture_default_str();
    cmd->add_option("--duration", a.duration, "With --synthetic: how long the stream lasts")
        ->capture_default_str();
    cmd->add_option("--start", a.start,
                    "Time stamp of the first chunk (default: the track's end, or now)");
    c->client.AddTo(*cmd);
    cmd->callback([c] { Record(*c); });
}

}  // namespace loopstore::cli
