#include "Host/Cli/StatusCommands.h"

#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "Host/Cli/ClientOptions.h"
#include "Host/Cli/Output.h"

namespace loopstore::cli {

using nlohmann::json;

namespace {

const char* TypeName(Protocol::WorkerType type) {
    switch (type) {
        case Protocol::WORKER_TYPE_WRITER:
            return "writer";
        case Protocol::WORKER_TYPE_READER:
            return "reader";
        default:
            return "unknown";
    }
}

}  // namespace

void StatusCommands::Register(CLI::App& app) {
    AddWorkers(app);
    AddSpace(app);
}

void StatusCommands::AddWorkers(CLI::App& app) {
    struct Args {};
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = app.add_subcommand("workers", "List the active track writers and readers");
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        auto client = c->client.Connect();
        const rpc::ActiveWorkers active = client->GetActiveWorkers();
        const std::vector<int64_t> ids(active.worker_ids().ids().begin(),
                                       active.worker_ids().ids().end());
        const Protocol::WorkerInfos infos =
            ids.empty() ? Protocol::WorkerInfos() : client->GetWorkerInfos(ids);
        json list = json::array();
        std::ostringstream text;
        if (infos.infos().empty())
            text << "no active workers\n";
        for (const Protocol::WorkerInfo& w : infos.infos()) {
            list.push_back({{"worker_id", w.worker_id()},
                            {"type", TypeName(w.type())},
                            {"track_id", w.track_id()},
                            {"total_bytes", w.total_bytes()},
                            {"throughput", w.throughput()},
                            {"description", w.description()}});
            text << "worker " << w.worker_id() << ": " << TypeName(w.type()) << " on track "
                 << w.track_id() << ", " << Output::Bytes(w.total_bytes()) << " moved, "
                 << w.throughput() << " B/s, " << w.description() << '\n';
        }
        Output(c->client.json, std::cout).Print({{"workers", list}}, text.str());
    });
}

void StatusCommands::AddSpace(CLI::App& app) {
    struct Args {};
    auto c = std::make_shared<ClientCommand<Args>>();
    CLI::App* cmd = app.add_subcommand("space", "Show the free space left in the pool");
    c->client.AddTo(*cmd);
    cmd->callback([c] {
        const int64_t free = c->client.Connect()->GetRemainingSpace();
        Output(c->client.json, std::cout)
            .Print({{"remaining_bytes", free}}, "pool free space: " + Output::Bytes(free));
    });
}

}  // namespace loopstore::cli
