#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/SQLite/Database.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/SQLite/ScopedStatement.h"

// The persistent record of every protection of every track: the SQLite file
// "protections.db" in the db directory, one row per protection, unique on the
// protection id. The track storage writes a row per new protection, deletes
// it on unprotect, and rebuilds the tracks' protections from it at start-up.
//
// Ownership: owns its connection and the statements cached on it.
// Errors of SQLite (a protection id stored twice, a failing disk) reach the
// caller as Moreld::SQLite::SQLiteError.
//
// Thread-safety: none. The track storage serialises all calls under its
// access mutex.
class ProtectionDB {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // What a protection carries beside its range: a free label and the
    // instant it is lifted by itself (none: kept until unprotected).
    struct Terms {
        std::string label;
        std::optional<TimePoint> expires;

        bool operator==(const Terms&) const = default;
    };

    // One stored protection: the range [from, to] of a track.
    struct ProtectionEntry {
        long trackId = 0;
        long protectionId = 0;
        TimePoint from;
        TimePoint to;
        Terms terms = {};

        bool operator==(const ProtectionEntry&) const = default;
    };

    // Closed; nothing is read from disk until Open.
    ProtectionDB();
    // Closes the connection (the file stays).
    ~ProtectionDB();
    ProtectionDB(const ProtectionDB&) = delete;
    ProtectionDB& operator=(const ProtectionDB&) = delete;

    // Opens (creating when missing) <dbDirectory>/protections.db, creates the
    // table when missing and its unique index, adds the label and expiry
    // columns to a table made before them (its rows are kept: no label, no
    // expiry), and sets the connection's journal and sync modes. Throws
    // std::runtime_error "Could not open database file <path>" (logged at
    // level 50) when the file cannot be opened, SQLiteError when the schema
    // cannot be created.
    void Open(const std::string& dbDirectory);

    // Stores a protection. Throws SQLiteError when the id is already stored;
    // the stored row is kept then.
    void Protect(long trackId, long protectionId, const TimePoint& from, const TimePoint& to);
    // The same with a label and an expiry. An expiry at the epoch itself
    // reads back as none.
    void Protect(long trackId, long protectionId, const TimePoint& from, const TimePoint& to,
                 const Terms& terms);
    // Deletes the protection; an unknown id changes nothing.
    void UnProtect(long protectionId);
    // The track of the protection, 0 when the id is not stored.
    long GetTrackIdFromProtectionId(long protectionId);
    // Every stored protection, in the order SQLite returns the rows (the
    // order of insertion for this table scan).
    std::vector<ProtectionEntry> GetProtections();

    Moreld::SQLite::Database& GetDb() { return db_; }

  private:
    void PrepareStatements();
    // Adds `column` (its SQL definition) when the table lacks it.
    void AddMissingColumn(const std::string& column, const std::string& definition);

    Moreld::SQLite::Database db_;
    const std::string table_ = "protections";

    CachedSql selectAll_{"ProtectionDB::GetProtections", ""};
    CachedSql selectOne_{"ProtectionDB::GetTrackIdFromProtectionId", ""};
    CachedSql insert_{"ProtectionDB::Protect", ""};
    CachedSql delete_{"ProtectionDB::UnProtect", ""};

    tav::mr::logging::Logger logger_;
};
