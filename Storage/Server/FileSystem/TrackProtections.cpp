#include "Storage/Server/FileSystem/TrackProtections.h"

#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/StrCat.h"
#include "Storage/Server/FileSystem/ProtectionTermsCodec.h"

using Moreld::Plexa::Converter;
using Moreld::Tools::StrCat;

void TrackProtections::Reload(const std::string& dbDirectory) {
    protectionDb_.Open(dbDirectory);
    for (const ProtectionDB::ProtectionEntry& entry : protectionDb_.GetProtections()) {
        if (entry.protectionId > lastProtectionId_)
            lastProtectionId_ = entry.protectionId;
        long id = entry.protectionId;
        Protect(entry.trackId, entry.from, entry.to - entry.from, id, false, {});
    }
}

void TrackProtections::ProtectWithTerms(long track, const TimePoint& from,
                                        const TimePoint& duration,
                                        const Protocol::ProtectionTerms& terms,
                                        long& protectionId) {
    const ProtectionDB::Terms checked = ProtectionTermsCodec::FromRequest(track, terms, clock_());
    Protect(track, from, duration, protectionId, true, checked);
}

void TrackProtections::Protect(long track, const TimePoint& from, const TimePoint& duration,
                               long& protectionId, bool isNew, const ProtectionDB::Terms& terms) {
    if (!directories_.Exist(track)) {
        std::string msg = StrCat("Track ", track, " does not exist to protect at ", from);
        MR_LOG(logger_, 30, msg);
        throw MoreldStorageApi::NotFoundError(msg);
    }
    LoopRecordingFileManager& manager = *managers_.GetManager(track);
    TimePoint to;
    if (!TimePoint::CheckedAdd(from, duration, to)) {
        std::string msg =
            StrCat("T", track, ": Protection from ", from, " (", from.ToNanoseconds(),
                   "ns) lasting ", duration.ToDurationString(), " ends after the last time point");
        MR_LOG(logger_, 40, msg);
        throw MoreldStorageApi::InvalidArgumentError(msg);
    }
    if (isNew) {
        ProtectNew(track, manager, from, to, protectionId, terms);
    } else if (manager.RestoreProtection(protectionId, from, to) == 0) {
        // Its blocks were lost (a crash, a repair): the protection stays, so
        // that it can still be listed and lifted, and the start goes on.
        MR_LOG(logger_, 40,
               "T" << track << ": Protection " << protectionId << " from " << from << " to " << to
                   << " holds no block; it is kept");
        return;
    }
    MR_LOG(logger_, 30,
           "T" << track << ": Protection " << protectionId << " from " << from << ", to " << to);
}

void TrackProtections::ProtectNew(long track, LoopRecordingFileManager& manager,
                                  const TimePoint& from, const TimePoint& to, long& protectionId,
                                  const ProtectionDB::Terms& terms) {
    const long id = lastProtectionId_ + 1;
    manager.Protect(id, from, to);  // throws before anything is issued
    lastProtectionId_ = id;
    protectionId = id;
    protectionDb_.Protect(track, id, from, to, terms);
}

size_t TrackProtections::LiftExpired() {
    const TimePoint now = clock_();
    size_t lifted = 0;
    for (const ProtectionDB::ProtectionEntry& entry : protectionDb_.GetProtections()) {
        if (!entry.terms.expires || *entry.terms.expires > now)
            continue;
        MR_LOG(logger_, 30,
               "T" << entry.trackId << ": Protection " << entry.protectionId << " expired at "
                   << *entry.terms.expires << ": lifted");
        Unprotect(entry.protectionId);
        ++lifted;
    }
    return lifted;
}

void TrackProtections::Unprotect(long protectionId) {
    const long track = protectionDb_.GetTrackIdFromProtectionId(protectionId);
    if (track == 0) {
        MR_LOG(logger_, 30,
               "Could not find track id associated with protection id " << protectionId
                                                                        << ": cannot Unprotect");
        return;
    }
    const unsigned long freed = managers_.GetManager(track)->Unprotect(protectionId);
    protectionDb_.UnProtect(protectionId);
    MR_LOG(logger_, 30,
           "Unprotect protection id " << protectionId << " on track " << track << ": " << freed
                                      << " files freed");
}

void TrackProtections::List(Protocol::ProtectionInfos& out) {
    out.clear_infos();
    std::vector<ProtectionDB::ProtectionEntry> entries = protectionDb_.GetProtections();
    MR_LOG(logger_, 30, "ListProtections: " << entries.size() << " protections found");
    for (const ProtectionDB::ProtectionEntry& entry : entries) {
        Protocol::ProtectionInfo* info = out.add_infos();
        info->set_protection_id(entry.protectionId);
        info->set_track_id(entry.trackId);
        *info->mutable_start() = Converter::To(entry.from);
        *info->mutable_end() = Converter::To(entry.to);
        ProtectionTermsCodec::ToInfo(entry.terms, *info);
    }
}
