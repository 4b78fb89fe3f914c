#include "Host/Cli/StoreChecker.h"

#include <filesystem>
#include <memory>
#include <set>
#include <sstream>

#include "Host/Cli/CliError.h"
#include "Platform/File/DataChunkFileReader.h"
#include "Platform/Plexa/DataChunk.h"
#include "Storage/Server/Factories/LoopRecordingFileFactory.h"

namespace loopstore::cli {

namespace {

std::string TrackFault(long id, const std::string& what) {
    return "track " + std::to_string(id) + ": " + what;
}

}  // namespace

StoreChecker::StoreChecker(DataLayout layout) : layout_(std::move(layout)) {}

StoreChecker::Report StoreChecker::Run() {
    // Without a pool database the library would take the directories for a
    // first start and link a new pool: that is not a check.
    if (!std::filesystem::exists(std::filesystem::path(layout_.db) / "pool.db"))
        throw CliError("no store to check: " + layout_.db + "/pool.db does not exist");
    std::unique_ptr<LoopRecordingFileFactory> factory;
    try {
        factory = std::make_unique<LoopRecordingFileFactory>(
            LoopRecordingFileFactory::FactoryParameters{layout_.tracks, layout_.db, layout_.pool});
    } catch (const std::exception& e) {
        throw CliError("cannot open the store (" + layout_.db + "): " + e.what());
    }
    Report report;
    if (!factory->GetPool()->IsStateCoherent())
        report.faults.push_back("pool: some file is not where pool.db places it");
    for (long id : factory->GetManagers().GetTrackIds()) {
        ++report.tracks;
        CheckTrack(*factory->GetManagers().GetManager(id), report);
    }
    return report;
}

void StoreChecker::CheckTrack(LoopRecordingFileManager& manager, Report& report) const {
    const long id = manager.GetTrackId();
    if (!manager.CheckInvariant())
        report.faults.push_back(TrackFault(id, "the index breaks its invariants"));
    for (const auto& [start, block] : manager.GetBlocks())
        CheckBlock(id, block, report);
}

void StoreChecker::CheckBlock(long trackId, const FileSystem::Block& block, Report& report) const {
    if (block.Empty())
        return;
    const std::string name = block.GetChunkFile().GetAbsoluteFileName(layout_.tracks, false);
    std::unique_ptr<Moreld::File::DataChunkFileReader> reader;
    try {
        reader = std::make_unique<Moreld::File::DataChunkFileReader>(name);
    } catch (const std::exception& e) {
        report.faults.push_back(TrackFault(trackId, e.what()));
        return;
    }
    Moreld::Plexa::DataChunk data;
    for (const auto& [tp, chunk] : block.GetChunks()) {
        ++report.chunks;
        try {
            reader->GetChunk(data, chunk.location.offset, {}, chunk.timepoint, chunk.location.size);
            report.bytes += data.GetDataSize();
        } catch (const std::exception& e) {
            std::ostringstream fault;
            fault << "chunk at " << chunk.timepoint << ": " << e.what();
            report.faults.push_back(TrackFault(trackId, fault.str()));
        }
    }
}

}  // namespace loopstore::cli
