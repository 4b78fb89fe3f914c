#include "Host/Cli/RecordCommand.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/FdInputBuffer.h"
#include "Host/Cli/MpegTsChunkSource.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/Recorder.h"
#include "Host/Cli/SizeParser.h"
#include "Host/Cli/StopSignal.h"
#include "Host/Cli/StreamChunkSource.h"
#include "Host/Cli/SyntheticChunkSource.h"
#include "Host/Cli/TimeParser.h"
#include "Host/Cli/UrlChunkSource.h"

namespace loopstore::cli {

using Moreld::Time::TimePoint;

namespace {

struct Args {
    int64_t track = 0;
    std::string input = "-";
    std::string url;
    std::string chunkDuration = "40ms";
    std::string chunkSize = "256K";
    bool mpegts = false;
    bool synthetic = false;
    std::string bitRate = "4M";
    std::string duration = "10s";
    std::string start;
    std::string clock;  // empty: chosen by the input
    std::string tolerance = "1s";
    std::string buffer = "64M";
    std::string stallTimeout = "5s";
};

// Enough packets to tell MPEG-TS from other bytes.
constexpr size_t kProbeSize = 8 * MpegTsChunker::kPacketSize;

std::string ReadHead(std::istream& in) {
    std::string head(kProbeSize, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(in.gcount()));
    return head;
}

bool IsRegularFile(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// Live input is stamped by the wall clock; a generated stream, a file (read
// faster than real time) and a given start by the stream's clock.
Recorder::Clock ChooseClock(const Args& a) {
    const bool file = a.url.empty() && (a.input == "-" ? IsRegularFile(0)
                                                       : std::filesystem::is_regular_file(a.input));
    if (a.clock.empty())
        return a.synthetic || !a.start.empty() || file ? Recorder::Clock::kStream
                                                       : Recorder::Clock::kWall;
    if (a.clock == "stream")
        return Recorder::Clock::kStream;
    if (a.synthetic)
        throw CliError("--synthetic streams are stamped by their own clock: drop --clock wall");
    if (!a.start.empty())
        throw CliError("--start sets the first time stamp of --clock stream, not of --clock wall");
    return Recorder::Clock::kWall;
}

// The standard input of a live recording is read as its bytes arrive.
struct Input {
    std::ifstream file;
    std::unique_ptr<FdInputBuffer> pipe;
    std::unique_ptr<std::istream> pipeStream;
    std::istream* stream = nullptr;
};

void OpenInput(const Args& a, const StopSignal& stop, Input& in) {
    if (a.input != "-") {
        in.file.open(a.input, std::ios::binary);
        if (!in.file)
            throw CliError("cannot open input file " + a.input);
        in.stream = &in.file;
        return;
    }
    in.pipe = std::make_unique<FdInputBuffer>(0, &stop.Flag());
    in.pipeStream = std::make_unique<std::istream>(in.pipe.get());
    in.stream = in.pipeStream.get();
}

std::unique_ptr<IChunkSource> OpenSource(const Args& a, const StopSignal& stop, Input& in,
                                         bool& mpegts) {
    const TimePoint chunkDuration = TimeParser::ParseDuration(a.chunkDuration);
    if (a.synthetic)
        return std::make_unique<SyntheticChunkSource>(a.track, SizeParser::ParseBitRate(a.bitRate),
                                                      chunkDuration,
                                                      TimeParser::ParseDuration(a.duration));
    if (!a.url.empty()) {
        mpegts = true;
        const auto stall = std::chrono::milliseconds(
            TimeParser::ParseDuration(a.stallTimeout).ToNanoseconds() / 1'000'000);
        return std::make_unique<UrlChunkSource>(
            UrlChunkSource::Options{a.url, chunkDuration, stall}, stop.Flag(), std::cerr);
    }
    const uint64_t chunkSize = SizeParser::ParseSize(a.chunkSize);
    if (chunkSize == 0)
        throw CliError("bad size '" + a.chunkSize + "': a chunk holds at least one byte");
    OpenInput(a, stop, in);
    std::string head = ReadHead(*in.stream);
    mpegts = a.mpegts || MpegTsChunker::LooksLikeMpegTs(head);
    if (mpegts)
        return std::make_unique<MpegTsChunkSource>(*in.stream, std::move(head), chunkSize,
                                                   chunkDuration);
    return std::make_unique<StreamChunkSource>(*in.stream, std::move(head), chunkSize,
                                               chunkDuration);
}

Recorder::Options RecordOptions(const Args& a, const StopSignal& stop) {
    Recorder::Options options;
    options.clock = ChooseClock(a);
    if (!a.start.empty())
        options.start = TimeParser::ParseInstant(a.start, TimePoint::Now());
    options.tolerance = TimeParser::ParseDuration(a.tolerance);
    options.bufferBytes = SizeParser::ParseSize(a.buffer);
    options.stop = &stop.Flag();
    options.notes = &std::cerr;
    return options;
}

std::string Text(const Args& a, const Recorder::Summary& s, bool mpegts, double seconds) {
    std::ostringstream text;
    text << "recorded " << s.chunks << " chunks, " << Output::Bytes(s.bytes) << " on track "
         << a.track << ": " << s.first << " .. " << s.end << " (" << (mpegts ? "MPEG-TS, " : "")
         << Output::Rate(s.bytes, seconds) << ")";
    if (s.stored != s.chunks)
        text << "; " << s.stored << " of them stored";
    if (s.dropped != 0)
        text << "; " << s.dropped << " bytes dropped (not MPEG-TS packets)";
    if (s.reconnects != 0)
        text << "; reconnected to the server " << s.reconnects << " times";
    if (s.lostChunks != 0)
        text << "; " << s.lostChunks << " chunks (" << Output::Bytes(s.lostBytes)
             << ") dropped while the server was away (see --buffer)";
    // The last chunk before a stop, or a burst after a pause, is no news.
    if (s.shortened * 10 > s.chunks)
        text << "; " << s.shortened
             << " chunks came faster than real time and were shortened to end by now"
                " (record files with --clock stream)";
    return text.str();
}

void Record(const ClientCommand<Args>& c) {
    const Args& a = c.extra;
    // Before any thread starts, so that the signals reach only its own.
    const StopSignal stop;
    const Recorder::Options options = RecordOptions(a, stop);
    Input in;
    bool mpegts = false;
    std::unique_ptr<IChunkSource> source = OpenSource(a, stop, in, mpegts);
    auto client = c.client.Connect();
    const auto began = std::chrono::steady_clock::now();
    const Recorder::Summary s = Recorder(*client, a.track).Run(*source, options);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    Output(c.client.json, std::cout)
        .Print({{"track_id", a.track},
                {"chunks", s.chunks},
                {"stored", s.stored},
                {"bytes", s.bytes},
                {"dropped_bytes", s.dropped},
                {"from", s.first.ToString()},
                {"to", s.end.ToString()},
                {"mpegts", mpegts},
                {"clock", options.clock == Recorder::Clock::kWall ? "wall" : "stream"},
                {"reconnects", s.reconnects},
                {"lost_chunks", s.lostChunks},
                {"lost_bytes", s.lostBytes},
                {"shortened", s.shortened},
                {"seconds", seconds}},
               Text(a, s, mpegts, seconds));
}

void AddLiveOptions(CLI::App& cmd, Args& a) {
    cmd.add_option("--url", a.url,
                   "Read a camera or network stream through libavformat (rtsp://, udp://, "
                   "srt://...): cut on key frames, remuxed as MPEG-TS, reconnected when it "
                   "stalls or ends; stops on SIGINT")
        ->excludes(cmd.get_option("--input"));
    cmd.add_option("--clock", a.clock,
                   "wall: stamp each chunk by the wall clock at its arrival, smoothed by the "
                   "stream's clock, never ahead of now (live input: a pipe, --url; the default). "
                   "stream: stamp by the stream's own clock from the track's end or --start "
                   "(the default for files, --synthetic and --start; may run ahead of now)")
        ->check(CLI::IsMember({"wall", "stream"}));
    cmd.add_option("--clock-tolerance", a.tolerance,
                   "--clock wall: how far the stream's clock may lag the wall clock before the "
                   "stamps jump to it (a pause in the input longer than this is a gap)")
        ->capture_default_str();
    cmd.add_option("--buffer", a.buffer,
                   "Chunks kept while the server is away (it is reconnected with backoff); "
                   "the oldest are dropped beyond this, and said to be")
        ->capture_default_str();
    cmd.add_option("--stall-timeout", a.stallTimeout,
                   "--url: reconnect when no packet came for this long (\"stream stalled\")")
        ->capture_default_str();
}

}  // namespace

void RecordCommand::Register(CLI::App& app) {
    auto c = std::make_shared<ClientCommand<Args>>();
    Args& a = c->extra;
    CLI::App* cmd = app.add_subcommand(
        "record",
        "Record a stream into a track: a file, standard input, a camera (--url) or a synthetic "
        "stream");
    cmd->add_option("--track", a.track, "Track id")->required();
    cmd->add_option("--input", a.input, "Input file, or - for standard input")
        ->capture_default_str();
    cmd->add_option("--chunk-duration", a.chunkDuration,
                    "Time each chunk covers (MPEG-TS with a clock, --url: at least this much)")
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
                    "Time stamp of the first chunk (implies --clock stream; default: the "
                    "track's end, or now)");
    AddLiveOptions(*cmd, a);
    c->client.AddTo(*cmd);
    cmd->callback([c] { Record(*c); });
}

}  // namespace loopstore::cli
