#pragma once

#include <map>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Storage/Indexes/SQLite/TrackPropertiesDB.h"

// The key/value properties of every track: a RAM copy of "properties.db"
// that answers reads, and writes every change through to the database.
//
// Not synchronised: its owner (the track storage) calls it under its access
// mutex.
class TrackPropertiesCache {
  public:
    TrackPropertiesCache();

    // Opens "properties.db" in `dbDirectory` and loads everything.
    void Open(const std::string& dbDirectory);
    // Inserts new keys and updates changed values; unchanged ones are skipped.
    // Throws std::runtime_error, storing nothing, when a property breaks the
    // limits of TrackPropertyLimits.
    void Set(long track, const Protocol::PropertyList& properties);
    // Removes the listed keys; a first key "__tav_all__" removes them all.
    void Remove(long track, const Protocol::PropertyList& properties);
    // The track's pairs, in key order.
    void Get(long track, Protocol::PropertyList& out);
    void RemoveAll(long track);

  private:
    void RemoveEveryKey(long track);
    // Keys and values of the track once `properties` are set.
    size_t BytesAfterSet(long track, const Protocol::PropertyList& properties) const;

    TrackPropertiesDB db_;
    std::map<long, std::map<std::string, std::string>> cache_;
    tav::mr::logging::Logger logger_;
};
