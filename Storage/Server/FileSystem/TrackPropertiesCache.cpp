#include "Storage/Server/FileSystem/TrackPropertiesCache.h"

#include "Platform/Logging/LoggingManager.h"
#include "Storage/Server/FileSystem/TrackPropertyLimits.h"

namespace {

// Asking to remove this key removes every property of the track.
const char* const kAllProperties = "__tav_all__";

}  // namespace

TrackPropertiesCache::TrackPropertiesCache()
    : logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingCommonTrackStorage")) {}

void TrackPropertiesCache::Open(const std::string& dbDirectory) {
    db_.Open(dbDirectory);
    cache_ = db_.GetProperties();
}

size_t TrackPropertiesCache::BytesAfterSet(long track,
                                           const Protocol::PropertyList& properties) const {
    static const std::map<std::string, std::string> kNone;
    auto found = cache_.find(track);
    const std::map<std::string, std::string>& cached =
        found == cache_.end() ? kNone : found->second;
    size_t bytes = 0;
    for (const auto& [key, value] : cached)
        bytes += key.size() + value.size();
    for (const Protocol::Property& property : properties.properties()) {
        auto it = cached.find(property.key());
        bytes += property.value().size();
        bytes -= it == cached.end() ? 0 : it->second.size();
        bytes += it == cached.end() ? property.key().size() : 0;
    }
    return bytes;
}

void TrackPropertiesCache::Set(long track, const Protocol::PropertyList& properties) {
    // Nothing is stored unless every property is within the limits.
    TrackPropertyLimits::Check(track, properties);
    TrackPropertyLimits::CheckTrackTotal(track, BytesAfterSet(track, properties));
    std::map<std::string, std::string> insertions;
    std::map<std::string, std::string> updates;
    std::map<std::string, std::string>& cached = cache_[track];
    for (const Protocol::Property& property : properties.properties()) {
        auto it = cached.find(property.key());
        if (it != cached.end()) {
            if (it->second == property.value())
                continue;
            it->second = property.value();
            updates[property.key()] = property.value();
            MR_LOG(logger_, 30,
                   "T" << track << ": Updated property <" << property.key() << "> of size "
                       << property.value().size());
        } else {
            cached.emplace(property.key(), property.value());
            insertions[property.key()] = property.value();
            MR_LOG(logger_, 30,
                   "T" << track << ": Inserted property <" << property.key() << "> of size "
                       << property.value().size());
        }
        MR_LOG(logger_, 10, "T" << track << ": value is " << property.value());
    }
    if (cached.empty())
        cache_.erase(track);
    db_.SetTrackProperties(track, insertions);
    db_.UpdateTrackProperties(track, updates);
}

void TrackPropertiesCache::RemoveEveryKey(long track) {
    MR_LOG(logger_, 30, "T" << track << ": Removing all properties...");
    std::vector<std::string> keys;
    auto it = cache_.find(track);
    if (it != cache_.end()) {
        for (const auto& [key, value] : it->second) {
            MR_LOG(logger_, 30, "T" << track << ": Removed property <" << key << ">");
            keys.push_back(key);
        }
    }
    db_.RemoveTrackProperties(track, keys);
    cache_.erase(track);
}

void TrackPropertiesCache::Remove(long track, const Protocol::PropertyList& properties) {
    if (properties.properties_size() > 0 && properties.properties(0).key() == kAllProperties) {
        RemoveEveryKey(track);
        return;
    }
    std::vector<std::string> removed;
    auto it = cache_.find(track);
    if (it != cache_.end()) {
        for (const Protocol::Property& property : properties.properties()) {
            if (it->second.erase(property.key()) == 0)
                continue;
            MR_LOG(logger_, 30, "T" << track << ": Removed property <" << property.key() << ">");
            removed.push_back(property.key());
        }
        if (it->second.empty())
            cache_.erase(it);
    }
    db_.RemoveTrackProperties(track, removed);
}

void TrackPropertiesCache::Get(long track, Protocol::PropertyList& out) {
    out.clear_properties();
    auto it = cache_.find(track);
    if (it != cache_.end()) {
        for (const auto& [key, value] : it->second) {
            Protocol::Property* property = out.add_properties();
            property->set_key(key);
            property->set_value(value);
        }
    }
    MR_LOG(logger_, 30,
           "T" << track << ": GetTrackProperties: " << out.properties_size() << " found");
}

void TrackPropertiesCache::RemoveAll(long track) {
    db_.RemoveAll(track);
    cache_.erase(track);
}
