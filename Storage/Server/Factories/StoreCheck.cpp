#include "Storage/Server/Factories/StoreCheck.h"

#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "Platform/File/DataChunkFileReader.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Services/StorageErrors.h"
#include "Storage/Indexes/SQLite/PoolDB.h"
#include "Storage/Indexes/SQLite/TrackDB.h"
#include "Storage/Server/Factories/DatabaseSnapshot.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kLeftAsItIs =
    "none: left as it is (the store never deletes what it does not own)";
constexpr const char* kNotRepaired = "none: start-up does not repair it";

// A positive decimal number without leading zeros or sign: the names the
// store gives track directories and track databases.
bool ParseTrackName(const std::string& name, long& id) {
    if (name.empty() || name.size() > 18 || name[0] == '0' ||
        name.find_first_not_of("0123456789") != std::string::npos)
        return false;
    id = std::stol(name);
    return true;
}

// A chunk file's name: digits only.
bool ParseFileName(const std::string& name, long& number) {
    if (name.empty() || name.size() > 18 ||
        name.find_first_not_of("0123456789") != std::string::npos)
        return false;
    number = std::stol(name);
    return true;
}

std::string FileText(long number) {
    return "file " + std::to_string(number);
}

}  // namespace

StoreCheck::StoreCheck(const LoopRecordingFileFactory::FactoryParameters& directories)
    : directories_(directories) {}

StoreCheck::Report StoreCheck::Run() {
    report_ = Report();
    const fs::path poolDb = fs::path(directories_.dbDirectory) / "pool.db";
    if (!fs::is_regular_file(poolDb))
        throw MoreldStorageApi::NotFoundError("no store to check: " + poolDb.string() +
                                              " does not exist");
    std::set<long> databases;
    for (const fs::directory_entry& entry : fs::directory_iterator(directories_.dbDirectory)) {
        long id = 0;
        if (entry.path().extension() == ".db" && ParseTrackName(entry.path().stem().string(), id))
            databases.insert(id);
    }
    DatabaseSnapshot snapshot;
    snapshot.Copy(directories_.dbDirectory, "pool.db");
    for (long id : databases)
        snapshot.Copy(directories_.dbDirectory, std::to_string(id) + ".db");
    ReadPool(snapshot.Directory());
    ScanDisk();
    ReadTracks(snapshot.Directory(), databases);
    CheckPoolFiles();
    CheckUnknownFiles();
    CheckTrackListings();
    return report_;
}

void StoreCheck::ReadPool(const std::string& snapshot) {
    PoolDB db;
    if (!db.Open(snapshot))
        throw std::runtime_error("cannot read " + directories_.dbDirectory + "/pool.db");
    for (const ChunkFile& file : db.GetAllFiles())
        poolFiles_[file.GetFileNumber()] = file;
    for (const ChunkFile& file : db.GetMovingFiles())
        poolFiles_[file.GetFileNumber()].SetFifthValue(file.GetFifthValue());
}

void StoreCheck::ScanDisk() {
    onDisk_.clear();
    trackDirectories_.clear();
    if (!fs::is_directory(directories_.poolDirectory)) {
        Add("pool directory " + directories_.poolDirectory + " is missing",
            "none: start-up reports it and no file is lent until it is back");
    } else {
        ScanDirectory(directories_.poolDirectory, 0);
    }
    if (!fs::is_directory(directories_.trackDirectory))
        return;
    for (const fs::directory_entry& entry : fs::directory_iterator(directories_.trackDirectory)) {
        if (!entry.is_directory())
            continue;
        long id = 0;
        if (!ParseTrackName(entry.path().filename().string(), id)) {
            Add("directory " + entry.path().string() + " is not a track directory name",
                "none: ignored by start-up, left as it is");
            continue;
        }
        trackDirectories_.insert(id);
        ScanDirectory(entry.path().string(), id);
    }
}

void StoreCheck::ScanDirectory(const std::string& directory, long owner) {
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        long number = 0;
        if (!entry.is_regular_file() || !ParseFileName(entry.path().filename().string(), number))
            continue;
        onDisk_[number].push_back({owner, entry.path().string(), entry.file_size()});
    }
}

void StoreCheck::ReadTracks(const std::string& snapshot, const std::set<long>& databases) {
    for (long id : databases) {
        if (trackDirectories_.count(id) == 0) {
            Add("track " + std::to_string(id) + " has a database " + directories_.dbDirectory +
                    "/" + std::to_string(id) + ".db but no directory",
                "none: a track without a directory is not loaded; the database is left as it is");
            continue;
        }
        TrackDB db;
        if (!db.Open(snapshot, id)) {
            Add("track " + std::to_string(id) + ": its database cannot be read", kNotRepaired);
            continue;
        }
        listings_[id] = {db.GetAllChunks(), db.GetAllEmptyFiles()};
    }
    for (long id : trackDirectories_) {
        ++report_.tracks;
        if (databases.count(id) == 0) {
            Add("track " + std::to_string(id) + " has a directory but no database " +
                    directories_.dbDirectory + "/" + std::to_string(id) + ".db",
                "an empty database is made and the files lent to the track are given back to it "
                "as empty files");
        }
    }
}

void StoreCheck::CheckPoolFiles() {
    for (const auto& [number, file] : poolFiles_)
        CheckPoolFile(file);
}

void StoreCheck::CheckPoolFile(const ChunkFile& file) {
    const long number = file.GetFileNumber();
    const long owner = file.GetDirectoryNumber();
    if (file.GetFifthValue() != 0) {
        Add(FileText(number) + " is in an interrupted move of track " +
                std::to_string(file.GetFifthValue()),
            "the move is finished: renames done or undone, the track's index told");
    }
    const std::vector<Place>& places = onDisk_[number];
    for (const Place& place : places) {
        if (place.size != static_cast<uint64_t>(file.Size())) {
            Add(FileText(number) + " (" + place.path + ") has " + std::to_string(place.size) +
                    " bytes, the pool's files have " + std::to_string(file.Size()),
                "a warning at start-up; not lent while it is free");
        }
    }
    if (places.empty()) {
        Add(FileText(number) + " is not on disk; pool.db places it in " + Where(owner),
            "none: the file is lost; pool.db still counts it");
    } else if (places.size() > 1) {
        std::string paths;
        for (const Place& place : places)
            paths += " " + place.path;
        Add(FileText(number) + " is on disk " + std::to_string(places.size()) + " times:" + paths,
            "none: the copies are left as they are; pool.db places it in " + Where(owner));
    } else if (places.front().directory != owner) {
        Add(FileText(number) + " is in " + Where(places.front().directory) +
                " but pool.db places it in " + Where(owner),
            "it is renamed to " + Where(owner));
    }
}

void StoreCheck::CheckUnknownFiles() {
    for (const auto& [number, places] : onDisk_) {
        if (poolFiles_.count(number) != 0)
            continue;
        for (const Place& place : places)
            Add("file " + place.path + " is not in pool.db", kLeftAsItIs);
    }
}

void StoreCheck::CheckTrackListings() {
    std::map<long, long> listedBy;  // file number -> track
    for (const auto& [track, listing] : listings_)
        CheckTrackListing(track, listing, listedBy);
    for (const auto& [number, file] : poolFiles_) {
        const long owner = file.GetDirectoryNumber();
        if (owner == 0 || trackDirectories_.count(owner) == 0 || listedBy.count(number) != 0)
            continue;
        Add(FileText(number) + " is lent to track " + std::to_string(owner) +
                " but its database does not list it",
            "it is given back to track " + std::to_string(owner) + " as an empty file");
    }
}

void StoreCheck::CheckTrackListing(long track, const TrackListing& listing,
                                   std::map<long, long>& listedBy) {
    const std::string name = "track " + std::to_string(track);
    std::map<long, int> empties;
    std::set<long> files;
    for (const ChunkFile& file : listing.emptyFiles) {
        if (++empties[file.GetFileNumber()] == 2)
            Add(name + " lists " + FileText(file.GetFileNumber()) + " twice as empty",
                kNotRepaired);
        files.insert(file.GetFileNumber());
    }
    std::set<long> withChunks;
    for (const FileSystem::Chunk& chunk : listing.chunks)
        withChunks.insert(chunk.location.file.GetFileNumber());
    for (long number : withChunks) {
        if (empties.count(number) != 0)
            Add(name + " lists " + FileText(number) + " as empty and with chunks", kNotRepaired);
        files.insert(number);
    }
    for (long number : files) {
        const auto [it, first] = listedBy.emplace(number, track);
        if (!first) {
            Add(FileText(number) + " is listed by tracks " + std::to_string(it->second) + " and " +
                    std::to_string(track),
                kNotRepaired);
        }
        const auto pool = poolFiles_.find(number);
        if (pool == poolFiles_.end() || pool->second.GetDirectoryNumber() != track) {
            Add(name + " lists " + FileText(number) + ", which pool.db places in " +
                    (pool == poolFiles_.end() ? "no place"
                                              : Where(pool->second.GetDirectoryNumber())),
                kNotRepaired);
        }
    }
    CheckChunks(track, listing.chunks);
}

void StoreCheck::CheckChunks(long track, const std::vector<FileSystem::Chunk>& chunks) {
    std::map<std::string, std::unique_ptr<Moreld::File::DataChunkFileReader>> readers;
    Moreld::Plexa::DataChunk data;
    for (const FileSystem::Chunk& chunk : chunks) {
        ++report_.chunks;
        const std::string path =
            chunk.location.file.GetAbsoluteFileName(directories_.trackDirectory, false);
        try {
            auto& reader = readers[path];
            if (!reader)
                reader = std::make_unique<Moreld::File::DataChunkFileReader>(path);
            reader->GetChunk(data, chunk.location.offset, {}, chunk.timepoint, chunk.location.size);
            report_.bytes += data.GetDataSize();
        } catch (const std::exception& e) {
            std::ostringstream what;
            what << "track " << track << ": chunk at " << chunk.timepoint << " in " << path
                 << " does not read back: " << e.what();
            readers.erase(path);
            Add(what.str(), "none: reads of it fail; it goes when its file is recycled");
        }
    }
}

std::string StoreCheck::Where(long directory) const {
    if (directory == 0)
        return "the pool directory " + directories_.poolDirectory;
    return "the directory of track " + std::to_string(directory);
}

void StoreCheck::Add(std::string what, std::string repair) {
    report_.problems.push_back({std::move(what), std::move(repair)});
}
