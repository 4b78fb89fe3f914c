#include "Host/Cli/ExportCommand.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/ClipExporter.h"
#include "Host/Cli/ExportProgress.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/StorageClient.h"
#include "Host/Cli/TemporaryOutput.h"
#include "Host/Cli/TimeParser.h"
#include "Host/Media/MediaError.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;

namespace {

struct Args {
    int64_t track = 0;
    std::string from;
    std::string to;
    std::string output;
    std::string format;
};

// What the command writes: a clip, or the chunks' payloads as stored.
struct Target {
    std::optional<media::ClipFormat> clip;  // nothing: raw
    std::string name;
};

Target ChooseFormat(const Args& a) {
    if (a.format == "raw")
        return {std::nullopt, "raw"};
    const auto format = a.format.empty() ? media::ClipFormat::FromPath(a.output)
                                         : media::ClipFormat::FromName(a.format);
    if (!format && !a.format.empty())
        throw CliError("unknown export format '" + a.format + "': mp4, ts or raw");
    if (!format && a.output == "-")
        throw CliError("give --format ts or raw to export to standard output");
    if (!format)
        throw CliError("cannot tell the format of " + a.output +
                       " from its name (.mp4, .ts, .m2ts): give --format mp4, ts or raw");
    return {format, format->Name()};
}

// "skipped 2 damaged records (at <t1>, <t2>)", the list cut as the server cut it.
std::string DamagedText(const StorageClient::Damaged& damaged) {
    std::ostringstream text;
    text << "skipped " << damaged.count << " damaged records (at ";
    for (size_t i = 0; i < damaged.at.size(); ++i)
        text << (i == 0 ? "" : ", ") << damaged.at[i].ToString();
    text << (damaged.at.size() < damaged.count ? ", ...)" : ")");
    return text.str();
}

// An empty or future range is refused before any file is made.
void RequireRecorded(int64_t track, TimePoint from, TimePoint to, TimePoint beginning,
                     TimePoint end) {
    if (beginning.ToNanoseconds() != -1 && to > beginning && from < end)
        return;
    std::string held = beginning.ToNanoseconds() == -1
                           ? "the track is empty"
                           : "the track holds " + beginning.ToString() + " .. " + end.ToString();
    throw CliError("nothing recorded on track " + std::to_string(track) + " between " +
                   from.ToString() + " and " + to.ToString() + " (" + held + ")");
}

struct Written {
    ClipExporter::Result result;
    TimePoint first;
    TimePoint end;
};

Written WriteRaw(StorageClient& client, int64_t track, TimePoint from, TimePoint to,
                 std::ostream& out) {
    Written w;
    w.first = w.end = TimePoint::FromNanoseconds(-1);
    w.result.chunks = client.Export(
        track, from, to,
        [&](const Protocol::Chunk& chunk) {
            out.write(chunk.data().data(), static_cast<std::streamsize>(chunk.data().size()));
            w.result.bytes += chunk.data().size();
            if (w.first.ToNanoseconds() == -1)
                w.first = Converter::From(chunk.timepoint());
            w.end = Converter::From(chunk.timepoint()) + Converter::From(chunk.duration());
        },
        &w.result.damaged);
    out.flush();
    if (!out)
        throw CliError("cannot write the output");
    return w;
}

// Progress runs to `until`: the end of the range, or of the track before it.
Written WriteClip(StorageClient& client, const ClipExporter::Request& request, TimePoint until,
                  bool json) {
    ExportProgress progress(std::cerr, !json && ::isatty(STDERR_FILENO) != 0,
                            request.from.ToNanoseconds(), until.ToNanoseconds());
    Written w;
    try {
        w.result = ClipExporter(client, progress).Export(request);
    } catch (const media::MediaError& e) {
        progress.Done();
        throw CliError("cannot export a clip of track " + std::to_string(request.track) + ": " +
                       e.what());
    }
    progress.Done();
    w.first = TimePoint::FromNanoseconds(w.result.clip.start);
    w.end = TimePoint::FromNanoseconds(w.result.clip.end);
    return w;
}

nlohmann::json GapsJson(const Written& w) {
    nlohmann::json gaps = nlohmann::json::array();
    for (const auto& gap : w.result.gaps)
        gaps.push_back(
            {{"from", gap.from.ToString()},
             {"to", gap.to.ToString()},
             {"seconds", static_cast<double>((gap.to - gap.from).ToNanoseconds()) / 1e9}});
    for (const auto& jump : w.result.clip.jumps)
        gaps.push_back({{"at", TimePoint::FromNanoseconds(jump.at).ToString()},
                        {"clock_step_seconds", static_cast<double>(jump.stepNs) / 1e9}});
    return gaps;
}

// Warnings on stderr: they matter even when stdout goes to a script.
void Warn(const Written& w, const TimePoint from) {
    for (const auto& gap : w.result.gaps)
        std::cerr << "warning: gap in the recording " << gap.from.ToString() << " .. "
                  << gap.to.ToString() << " (" << (gap.to - gap.from).ToDurationString()
                  << "), closed up in the clip\n";
    for (const auto& jump : w.result.clip.jumps)
        std::cerr << "warning: the media clock jumps by "
                  << TimePoint::FromNanoseconds(jump.stepNs).ToDurationString() << " at "
                  << TimePoint::FromNanoseconds(jump.at).ToString() << ", closed up in the clip\n";
    if (w.result.clip.startsLate)
        std::cerr << "warning: no key frame at or before " << from.ToString()
                  << " within 300 s: the clip starts at " << w.first.ToString() << "\n";
    if (w.result.damaged.count != 0)
        std::cerr << "warning: " << DamagedText(w.result.damaged) << "\n";
}

void Export(const ClientCommand<Args>& c) {
    const Args& a = c.extra;
    const auto [from, to] = TimeParser::ParseRange(a.from, a.to, TimePoint::Now());
    const Target target = ChooseFormat(a);
    const bool toStdout = a.output == "-";
    if (toStdout && target.clip && target.clip->kind() == media::ClipFormat::Kind::kMp4)
        throw CliError("an MP4 clip cannot go to standard output: give a file, or --format ts");
    auto client = c.client.Connect();
    client->RequireTrack(a.track);
    const TimePoint beginning = client->GetBeginningOfTrack(a.track);
    const TimePoint end = client->GetEndOfTrack(a.track);
    RequireRecorded(a.track, from, to, beginning, end);
    std::optional<TemporaryOutput> temporary;
    if (!toStdout)
        temporary.emplace(a.output);
    Written w;
    if (target.clip) {
        const ClipExporter::Request request{
            a.track, from, to, *target.clip, toStdout ? "pipe:1" : temporary->Path(), beginning};
        w = WriteClip(*client, request, std::min(to, end), c.client.json);
    } else {
        std::ofstream file;
        if (!toStdout) {
            file.open(temporary->Path(), std::ios::binary | std::ios::trunc);
            if (!file)
                throw CliError("cannot create output file " + a.output);
        }
        w = WriteRaw(*client, a.track, from, to, toStdout ? std::cout : file);
    }
    if (temporary)
        temporary->Commit();
    Warn(w, from);
    std::ostringstream text;
    text << "exported " << w.result.chunks << " chunks, " << Output::Bytes(w.result.bytes)
         << " of track " << a.track << " to " << a.output << " as " << target.name << " ("
         << Output::Time(w.first) << " .. " << Output::Time(w.end) << ")";
    // With the data on stdout, the summary must not mix with it.
    Output(c.client.json, toStdout ? std::cerr : std::cout)
        .Print({{"track_id", a.track},
                {"format", target.name},
                {"chunks", w.result.chunks},
                {"bytes", w.result.bytes},
                {"first", Output::TimeJson(w.first)},
                {"end", Output::TimeJson(w.end)},
                {"packets", w.result.clip.packets},
                {"gaps", GapsJson(w)},
                {"damaged", w.result.damaged.count},
                {"output", a.output}},
               text.str());
}

}  // namespace

void ExportCommand::Register(CLI::App& app) {
    auto c = std::make_shared<ClientCommand<Args>>();
    Args& a = c->extra;
    CLI::App* cmd = app.add_subcommand(
        "export",
        "Write a time range of a track to a file: a playable clip (MP4 or MPEG-TS) that starts "
        "at the key frame at or before --from, or the raw chunks");
    cmd->add_option("--track", a.track, "Track id")->required();
    cmd->add_option("--from", a.from, "Start (ISO-8601, now, -10m, +30s, -1d, 123ns)")->required();
    cmd->add_option("--to", a.to, "End, after the start (same forms)")->required();
    cmd->add_option("--output", a.output, "Output file, or - for standard output")->required();
    cmd->add_option("--format", a.format,
                    "mp4, ts or raw (the chunks as stored); default from the output's extension "
                    "(.mp4, .ts, .m2ts)");
    c->client.AddTo(*cmd);
    cmd->callback([c] { Export(*c); });
}

}  // namespace loopstore::cli
