#include "Host/Cli/PropertyCommands.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/Output.h"

namespace loopstore::cli {

using nlohmann::json;

namespace {

std::map<std::string, std::string> ParseAssignments(const std::vector<std::string>& items) {
    std::map<std::string, std::string> out;
    for (const std::string& item : items) {
        const size_t eq = item.find('=');
        if (eq == std::string::npos || eq == 0)
            throw CliError("bad property '" + item + "' (expected KEY=VALUE)");
        out[item.substr(0, eq)] = item.substr(eq + 1);
    }
    return out;
}

std::string Join(const std::vector<std::string>& keys) {
    std::string text;
    for (const std::string& key : keys)
        text += (text.empty() ? "'" : ", '") + key + "'";
    return text;
}

}  // namespace

void PropertyCommands::Register(CLI::App& app) {
    CLI::App* props = app.add_subcommand("props", "Set, read and remove a track's properties");
    props->require_subcommand(1);
    AddSet(*props);
    AddGet(*props);
    AddRemove(*props);
}

void PropertyCommands::AddSet(CLI::App& props) {
    struct Args {
        int64_t id = 0;
        std::vector<std::string> items;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = props.add_subcommand("set", "Set (or replace) properties: KEY=VALUE...");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    cmd->add_option("properties", c->extra.items, "KEY=VALUE pairs")->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        const auto properties = ParseAssignments(c->extra.items);
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        client->SetTrackProperties(c->extra.id, properties);
        Output(c->client.json, std::cout)
            .Print({{"id", c->extra.id}, {"set", properties}},
                   "set " + std::to_string(properties.size()) + " properties on track " +
                       std::to_string(c->extra.id));
    });
}

void PropertyCommands::AddGet(CLI::App& props) {
    struct Args {
        int64_t id = 0;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = props.add_subcommand("get", "Print a track's properties");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        const auto properties = client->GetTrackProperties(c->extra.id);
        std::string text;
        for (const auto& [key, value] : properties)
            text += key + "=" + value + "\n";
        if (properties.empty())
            text = "no properties\n";
        Output(c->client.json, std::cout)
            .Print({{"id", c->extra.id}, {"properties", properties}}, text);
    });
}

void PropertyCommands::AddRemove(CLI::App& props) {
    struct Args {
        int64_t id = 0;
        std::vector<std::string> keys;
        bool all = false;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = props.add_subcommand("rm", "Remove properties by key, or --all");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    auto* keys = cmd->add_option("keys", c->extra.keys, "Keys to remove");
    auto* all = cmd->add_flag("--all", c->extra.all, "Remove every property of the track");
    keys->excludes(all);
    cmd->callback([c] {
        if (c->extra.keys.empty() && !c->extra.all)
            throw CliError("props rm: name the keys to remove, or give --all");
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        // The server answers nothing on unknown keys: report only keys the
        // track held.
        const auto held = client->GetTrackProperties(c->extra.id);
        std::vector<std::string> keys;
        for (const auto& [key, value] : held)
            if (c->extra.all || std::count(c->extra.keys.begin(), c->extra.keys.end(), key) != 0)
                keys.push_back(key);
        if (keys.empty() && !c->extra.all)
            throw CliError("track " + std::to_string(c->extra.id) + " has none of the properties " +
                           Join(c->extra.keys));
        if (!keys.empty())
            client->RemoveTrackProperties(c->extra.id, keys);
        Output(c->client.json, std::cout)
            .Print({{"id", c->extra.id}, {"removed", keys}},
                   "removed " + std::to_string(keys.size()) + " properties from track " +
                       std::to_string(c->extra.id));
    });
    c->client.AddTo(*cmd);
}

}  // namespace loopstore::cli
