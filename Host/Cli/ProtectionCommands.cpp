#include "Host/Cli/ProtectionCommands.h"

#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/TimeParser.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;
using nlohmann::json;

namespace {

// --expires: a duration from now (30d, 12h), or an instant in the forms of
// --from; it must lie after now.
TimePoint ParseExpiry(const std::string& text, TimePoint now) {
    TimePoint expires;
    try {
        expires = now + TimeParser::ParseDuration(text);
    } catch (const CliError&) {
        expires = TimeParser::ParseInstant(text, now);
    }
    if (expires <= now)
        throw CliError("--expires " + text + " (" + expires.ToString() + ") is not in the future");
    return expires;
}

// The label and expiry of a protection, for its line of text.
std::string TermsText(const std::string& label, const std::optional<TimePoint>& expires) {
    std::string text;
    if (!label.empty())
        text += ", label " + json(label).dump();
    if (expires)
        text += ", expires " + expires->ToString();
    return text;
}

json ExpiryJson(const std::optional<TimePoint>& expires) {
    return expires ? json(expires->ToString()) : json(nullptr);
}

bool HasProtection(StorageClient& client, int64_t protection) {
    const Protocol::ProtectionInfos infos = client.ListProtections();
    for (const Protocol::ProtectionInfo& p : infos.infos())
        if (p.protection_id() == protection)
            return true;
    return false;
}

}  // namespace

void ProtectionCommands::Register(CLI::App& app) {
    AddProtect(app);
    AddUnprotect(app);
    AddList(app);
}

void ProtectionCommands::AddProtect(CLI::App& app) {
    struct Args {
        int64_t id = 0;
        std::string from;
        std::string to;
        std::string label;
        std::string expires;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = app.add_subcommand(
        "protect", "Keep a time range of a track from being recycled; prints the protection id");
    cmd->add_option("id", c->extra.id, "Track id")->required();
    cmd->add_option("--from", c->extra.from, "Start (ISO-8601, now, -10m, +30s, -1d, 123ns)")
        ->required();
    cmd->add_option("--to", c->extra.to, "End, after the start (same forms)")->required();
    cmd->add_option("--label", c->extra.label, "A name listed with the protection");
    cmd->add_option("--expires", c->extra.expires,
                    "Lift the protection by itself after a duration (30d, 12h) or at an "
                    "instant (same forms as --from)");
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        const TimePoint now = TimePoint::Now();
        const auto [from, to] = TimeParser::ParseRange(c->extra.from, c->extra.to, now);
        std::optional<TimePoint> expires;
        if (!c->extra.expires.empty())
            expires = ParseExpiry(c->extra.expires, now);
        auto client = c->client.Connect();
        client->RequireTrack(c->extra.id);
        const int64_t protection =
            client->Protect(c->extra.id, from, to - from, c->extra.label, expires);
        Output(c->client.json, std::cout)
            .Print({{"protection_id", protection},
                    {"track_id", c->extra.id},
                    {"from", from.ToString()},
                    {"to", to.ToString()},
                    {"label", c->extra.label},
                    {"expires", ExpiryJson(expires)}},
                   "protection " + std::to_string(protection) + " on track " +
                       std::to_string(c->extra.id) + ": " + from.ToString() + " .. " +
                       to.ToString() + TermsText(c->extra.label, expires));
    });
}

void ProtectionCommands::AddUnprotect(CLI::App& app) {
    struct Args {
        int64_t protection = 0;
    };
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = app.add_subcommand("unprotect", "Remove a protection (by its id)");
    cmd->add_option("protection_id", c->extra.protection, "Protection id (see 'protections')")
        ->required();
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        auto client = c->client.Connect();
        // The server answers nothing on an unknown id, so look it up first.
        if (!HasProtection(*client, c->extra.protection))
            throw CliError("unknown protection " + std::to_string(c->extra.protection));
        client->Unprotect(c->extra.protection);
        Output(c->client.json, std::cout)
            .Print({{"protection_id", c->extra.protection}, {"removed", true}},
                   "removed protection " + std::to_string(c->extra.protection));
    });
}

void ProtectionCommands::AddList(CLI::App& app) {
    struct Args {};
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = app.add_subcommand("protections", "List every protection");
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        const Protocol::ProtectionInfos infos = c->client.Connect()->ListProtections();
        json list = json::array();
        std::ostringstream text;
        if (infos.infos().empty())
            text << "no protections\n";
        for (const Protocol::ProtectionInfo& p : infos.infos()) {
            const TimePoint start = Converter::From(p.start());
            const TimePoint end = Converter::From(p.end());
            std::optional<TimePoint> expires;
            if (p.has_expires())
                expires = Converter::From(p.expires());
            list.push_back({{"protection_id", p.protection_id()},
                            {"track_id", p.track_id()},
                            {"from", start.ToString()},
                            {"to", end.ToString()},
                            {"label", p.label()},
                            {"expires", ExpiryJson(expires)}});
            text << "protection " << p.protection_id() << ": track " << p.track_id() << ", "
                 << start << " .. " << end << TermsText(p.label(), expires) << '\n';
        }
        Output(c->client.json, std::cout).Print({{"protections", list}}, text.str());
    });
}

}  // namespace loopstore::cli
