#include "Host/Cli/TrackCommands.h"

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/MaxAgeText.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/SizeParser.h"
#include "Host/Cli/TrackSetCommand.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;
using nlohmann::json;

namespace {

// An empty track's times are not instants (the storage answers 0 or -1 ns).
// Neither is a beginning of 0 ns on a track holding data: the storage takes
// the beginning from its recyclable files and answers 0 ns when every file
// holding data is protected, so show it as unknown rather than 1970.
Moreld::Time::TimePoint Instant(const Protocol::TrackInfo& info, const Protocol::TimePoint& tp) {
    const Moreld::Time::TimePoint instant = Converter::From(tp);
    return info.current_size() == 0 || instant.ToNanoseconds() == 0
               ? Moreld::Time::TimePoint::FromNanoseconds(-1)
               : instant;
}

// The track's maximum age; null (JSON) or "off" when it has none.
json MaxAgeJson(const Protocol::TrackInfo& info) {
    const Moreld::Time::TimePoint maxAge = Converter::From(info.max_age());
    return maxAge.ToNanoseconds() == 0 ? json() : json(MaxAgeText::Format(maxAge));
}

json InfoJson(const Protocol::TrackInfo& info) {
    return {{"id", info.id()},
            {"beginning", Output::TimeJson(Instant(info, info.beginning()))},
            {"end", Output::TimeJson(Instant(info, info.end()))},
            {"current_size", info.current_size()},
            {"track_size", info.track_size()},
            {"max_age", MaxAgeJson(info)},
            {"oldest", Output::TimeJson(Instant(info, info.oldest()))}};
}

std::string InfoText(const Protocol::TrackInfo& info) {
    std::ostringstream text;
    text << "track " << info.id() << '\n'
         << "  beginning:    " << Output::Time(Instant(info, info.beginning())) << '\n'
         << "  end:          " << Output::Time(Instant(info, info.end())) << '\n'
         << "  data held:    " << Output::Bytes(info.current_size()) << '\n'
         << "  track size:   " << Output::Bytes(info.track_size()) << '\n'
         << "  max age:      " << MaxAgeText::Format(Converter::From(info.max_age())) << '\n'
         << "  oldest kept:  " << Output::Time(Instant(info, info.oldest())) << '\n';
    return text.str();
}

}  // namespace

void TrackCommands::Register(CLI::App& app) {
    CLI::App* track = app.add_subcommand("track", "Create, resize, delete, clear and list tracks");
    track->require_subcommand(1);
    AddCreate(*track);
    AddGrow(*track);
    AddDelete(*track);
    AddClear(*track);
    AddList(*track);
    AddInfo(*track);
    TrackSetCommand::Register(*track);
}

void TrackCommands::AddCreate(CLI::App& track) {
    struct Args {
        int64_t id = 0;
        std::string size;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd =
        track.add_subcommand("create", "Create a track: moves pool files worth SIZE bytes into it");
    cmd->add_option("--id", c->extra.id, "Track id (0 or none: the server picks the next id)");
    cmd->add_option("--size", c->extra.size, "Track size in bytes (K, M, G suffixes: 64M)")
        ->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        const uint64_t size = SizeParser::ParseSize(c->extra.size);
        auto client = c->client.Connect();
        const int64_t id = client->CreateTrack(c->extra.id, size);
        // The track takes whole pool files: report what it got, not the request.
        const uint64_t taken = client->GetTrackInfos({id}).infos(0).track_size();
        Output(c->client.json, std::cout)
            .Print({{"id", id}, {"requested_size", size}, {"size", taken}},
                   "created track " + std::to_string(id) + " of " + Output::Bytes(taken));
    });
}

void TrackCommands::AddGrow(CLI::App& track) {
    struct Args {
        int64_t id = 0;
        std::string by;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = track.add_subcommand(
        "grow", "Resize a track: + takes files from the pool, - gives unprotected files back");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    cmd->add_option("--by", c->extra.by, "Change in bytes, signed (+64M, -16M)")->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        const int64_t delta = SizeParser::ParseSignedSize(c->extra.by);
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        client->GrowTrack(c->extra.id, delta);
        // Files are whole: the track size moves by whole files, so report
        // what the track holds now rather than the request.
        const uint64_t size = client->GetTrackInfos({c->extra.id}).infos(0).track_size();
        Output(c->client.json, std::cout)
            .Print({{"id", c->extra.id}, {"requested_change", delta}, {"track_size", size}},
                   "track " + std::to_string(c->extra.id) + " resized (" + c->extra.by + "), now " +
                       Output::Bytes(size));
    });
}

void TrackCommands::AddDelete(CLI::App& track) {
    struct Args {
        int64_t id = 0;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = track.add_subcommand(
        "delete", "Delete a track; its protected files stay until their protections end");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        const Protocol::TrackParameters answer = client->DeleteTrack(c->extra.id);
        const int64_t left = answer.has_size() ? answer.size() : 0;
        std::string text = "deleted track " + std::to_string(c->extra.id);
        if (left > 0)
            text += " (" + Output::Bytes(left) + " kept by protections)";
        Output(c->client.json, std::cout)
            .Print({{"id", c->extra.id}, {"remaining_size", left}}, text);
    });
}

void TrackCommands::AddClear(CLI::App& track) {
    struct Args {
        int64_t id = 0;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = track.add_subcommand("clear", "Empty a track's unprotected files");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        client->ClearTrack(c->extra.id);
        Output(c->client.json, std::cout)
            .Print({{"id", c->extra.id}, {"cleared", true}},
                   "cleared track " + std::to_string(c->extra.id));
    });
}

void TrackCommands::AddList(CLI::App& track) {
    struct Args {};
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = track.add_subcommand("list", "List the tracks with their state");
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        auto client = c->client.Connect();
        const std::vector<int64_t> ids = client->ListTracks();
        const Protocol::TrackInfos infos =
            ids.empty() ? Protocol::TrackInfos() : client->GetTrackInfos(ids);
        json list = json::array();
        std::ostringstream text;
        if (ids.empty())
            text << "no tracks\n";
        for (const Protocol::TrackInfo& info : infos.infos()) {
            list.push_back(InfoJson(info));
            text << "track " << info.id() << ": " << Output::Bytes(info.track_size()) << ", "
                 << Output::Time(Instant(info, info.beginning())) << " .. "
                 << Output::Time(Instant(info, info.end()));
            if (info.max_age().nanoseconds() != 0)
                text << ", max age " << MaxAgeText::Format(Converter::From(info.max_age()));
            text << '\n';
        }
        Output(c->client.json, std::cout).Print({{"tracks", list}}, text.str());
    });
}

void TrackCommands::AddInfo(CLI::App& track) {
    struct Args {
        std::vector<int64_t> ids;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = track.add_subcommand("info", "Show tracks' time span, data held and size");
    cmd->add_option("ids", c->extra.ids, "Track ids")->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        auto client = c->client.Connect();
        for (int64_t id : c->extra.ids)
            client->RequireTrack(id);
        const Protocol::TrackInfos infos = client->GetTrackInfos(c->extra.ids);
        json list = json::array();
        std::string text;
        for (const Protocol::TrackInfo& info : infos.infos()) {
            list.push_back(InfoJson(info));
            text += InfoText(info);
        }
        Output(c->client.json, std::cout).Print({{"tracks", list}}, text);
    });
}

}  // namespace loopstore::cli
