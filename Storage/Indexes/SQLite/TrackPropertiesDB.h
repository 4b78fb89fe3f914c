#pragma once

#include <map>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/SQLite/Database.h"
#include "Storage/Indexes/SQLite/ScopedStatement.h"

// The persistent record of the tracks' string key/value properties: the
// SQLite file "properties.db" in the db directory, one row per track and key.
// The track storage loads it whole into its cache at start-up and writes every
// change through. The table has no key: the caller keeps one row per track
// and key by updating keys it already holds instead of inserting them.
//
// Ownership: owns its connection and the statements cached on it.
// Multi-row writes run in one transaction each and are all-or-nothing: an SQL
// error on any row rolls the whole call back and reaches the caller as
// Moreld::SQLite::SQLiteError.
//
// Thread-safety: none. The track storage serialises all calls under its
// access mutex.
class TrackPropertiesDB {
  public:
    using Properties = std::map<std::string, std::string>;

    // Closed; nothing is read from disk until Open.
    TrackPropertiesDB();
    // Closes the connection (the file stays).
    ~TrackPropertiesDB();
    TrackPropertiesDB(const TrackPropertiesDB&) = delete;
    TrackPropertiesDB& operator=(const TrackPropertiesDB&) = delete;

    // Opens (creating when missing) <dbDirectory>/properties.db, creates the
    // table when missing and sets the connection's journal and sync modes.
    // Throws std::runtime_error "Could not open database file <path>"
    // (logged at level 50) when the file cannot be opened, SQLiteError when
    // the schema cannot be created.
    void Open(const std::string& dbDirectory);

    // Inserts one row per pair, whether or not the key is stored already.
    void SetTrackProperties(long trackId, const Properties& properties);
    // Sets the value of each key the track has; keys without a row are
    // skipped (no row is created).
    void UpdateTrackProperties(long trackId, const Properties& properties);
    // Deletes the track's rows of these keys.
    void RemoveTrackProperties(long trackId, const std::vector<std::string>& keys);
    // Deletes every row of the track.
    void RemoveAll(long trackId);
    // Every track's properties. Of two rows with one track and key, the
    // first one read wins.
    std::map<long, Properties> GetProperties();

    Moreld::SQLite::Database& GetDb() { return db_; }

  private:
    void PrepareStatements();

    Moreld::SQLite::Database db_;
    const std::string table_ = "properties";

    CachedSql selectAll_{"TrackPropertiesDB::GetProperties", ""};
    CachedSql insert_{"TrackPropertiesDB::SetTrackProperties", ""};
    CachedSql deleteOne_{"TrackPropertiesDB::RemoveTrackProperties", ""};
    CachedSql deleteTrack_{"TrackPropertiesDB::RemoveAll", ""};
    CachedSql update_{"TrackPropertiesDB::UpdateTrackProperties", ""};

    tav::mr::logging::Logger logger_;
};
