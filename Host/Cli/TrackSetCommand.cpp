#include "Host/Cli/TrackSetCommand.h"

#include <iostream>
#include <memory>
#include <string>

#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/MaxAgeText.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/StorageClient.h"

namespace loopstore::cli {

void TrackSetCommand::Register(CLI::App& track) {
    struct Args {
        int64_t id = 0;
        std::string maxAge;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = track.add_subcommand("set", "Change a track's policies");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    cmd->add_option("--max-age", c->extra.maxAge,
                    "Keep content no longer than this (72h, 30d; 0 or off: no limit). Older "
                    "unprotected content is emptied now, at every start and every minute")
        ->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        const Moreld::Time::TimePoint maxAge = MaxAgeText::Parse(c->extra.maxAge);
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        client->SetTrackMaxAge(c->extra.id, maxAge);
        const bool off = maxAge.ToNanoseconds() == 0;
        const std::string text = MaxAgeText::Format(maxAge);
        Output(c->client.json, std::cout)
            .Print(
                {{"id", c->extra.id}, {"max_age", off ? nlohmann::json() : nlohmann::json(text)}},
                "track " + std::to_string(c->extra.id) +
                    (off ? ": no max age" : ": max age " + text));
    });
}

}  // namespace loopstore::cli
