#include "Host/Cli/ExportCommand.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/StorageClient.h"
#include "Host/Cli/TimeParser.h"
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
};

// "skipped 2 damaged records (at <t1>, <t2>)", the list cut as the server cut it.
std::string DamagedText(const StorageClient::Damaged& damaged) {
    std::ostringstream text;
    text << "skipped " << damaged.count << " damaged records (at ";
    for (size_t i = 0; i < damaged.at.size(); ++i)
        text << (i == 0 ? "" : ", ") << damaged.at[i].ToString();
    text << (damaged.at.size() < damaged.count ? ", ...)" : ")");
    return text.str();
}

void Export(const ClientCommand<Args>& c) {
    const Args& a = c.extra;
    const auto [from, to] = TimeParser::ParseRange(a.from, a.to, TimePoint::Now());
    auto client = c.client.Connect();
    client->RequireTrack(a.track);
    std::ofstream file;
    const bool toStdout = a.output == "-";
    if (!toStdout) {
        file.open(a.output, std::ios::binary | std::ios::trunc);
        if (!file)
            throw CliError("cannot create output file " + a.output);
    }
    std::ostream& out = toStdout ? std::cout : file;
    uint64_t bytes = 0;
    TimePoint first = TimePoint::FromNanoseconds(-1), end = TimePoint::FromNanoseconds(-1);
    StorageClient::Damaged damaged;
    const uint64_t chunks = client->Export(
        a.track, from, to,
        [&](const Protocol::Chunk& chunk) {
            out.write(chunk.data().data(), static_cast<std::streamsize>(chunk.data().size()));
            bytes += chunk.data().size();
            if (first.ToNanoseconds() == -1)
                first = Converter::From(chunk.timepoint());
            end = Converter::From(chunk.timepoint()) + Converter::From(chunk.duration());
        },
        &damaged);
    out.flush();
    if (!out)
        throw CliError("cannot write the output " + a.output);
    if (damaged.count != 0)
        std::cerr << "warning: " << DamagedText(damaged) << "\n";
    std::ostringstream text;
    text << "exported " << chunks << " chunks, " << Output::Bytes(bytes) << " of track " << a.track
         << " to " << a.output << " (" << Output::Time(first) << " .. " << Output::Time(end) << ")";
    // With the data on stdout, the summary must not mix with it.
    Output(c.client.json, toStdout ? std::cerr : std::cout)
        .Print({{"track_id", a.track},
                {"chunks", chunks},
                {"bytes", bytes},
                {"first", Output::TimeJson(first)},
                {"end", Output::TimeJson(end)},
                {"damaged", damaged.count},
                {"output", a.output}},
               text.str());
}

}  // namespace

void ExportCommand::Register(CLI::App& app) {
    auto c = std::make_shared<ClientCommand<Args>>();
    Args& a = c->extra;
    CLI::App* cmd = app.add_subcommand(
        "export", "Write the chunks of a time range of a track to a file, in order");
    cmd->add_option("--track", a.track, "Track id")->required();
    cmd->add_option("--from", a.from, "Start (ISO-8601, now, -10m, +30s, -1d, 123ns)")->required();
    cmd->add_option("--to", a.to, "End, after the start (same forms)")->required();
    cmd->add_option("--output", a.output, "Output file, or - for standard output")->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] { Export(*c); });
}

}  // namespace loopstore::cli
