#include "Storage/Indexes/Ram/ProtectionTable.h"

#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/StrCat.h"

using Moreld::Tools::StrCat;

void ProtectionTable::CheckRequest(unsigned long id, const TimePoint& in,
                                   const TimePoint& out) const {
    if (id == 0)
        Refuse<MoreldStorageApi::InvalidArgumentError>(
            40, StrCat("Protection id 0 is not accepted to protect from ", in, " to ", out));
    if (out <= in) {
        Refuse<MoreldStorageApi::InvalidArgumentError>(
            40, StrCat("Timepoint OUT ", out, " must be > timepoint IN ", in,
                       " to call Protect on track ", trackId_));
    }
}

std::vector<ChunkFile> ProtectionTable::Protect(unsigned long id, const TimePoint& in,
                                                const TimePoint& out, bool mayHoldNothing,
                                                Blocks& blocks,
                                                std::set<TimePoint>& recyclableKeys) {
    const long signedId = static_cast<long>(id);
    if (Has(id)) {
        Refuse<MoreldStorageApi::AlreadyExistsError>(
            40,
            StrCat("Protection id ", signedId, " already used t protect from ", in, " to ", out));
    }
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": Protect from " << in << " to " << out << " with protection id "
               << signedId);
    if (blocks.empty() && !mayHoldNothing)
        Refuse<MoreldStorageApi::StoreBusyError>(
            30, StrCat("Nothing to protect on track ", trackId_, ": track is empty"));
    std::vector<ChunkFile> files = HoldBlocks(id, in, out, blocks, recyclableKeys);
    if (files.empty() && !mayHoldNothing)
        Refuse<MoreldStorageApi::StoreBusyError>(
            30, StrCat("Protect on track ", trackId_, ": no files were protected"));
    KeepRange(id, in, out);
    return files;
}

template <typename Error>
void ProtectionTable::Refuse(int level, const std::string& msg) const {
    MR_LOG(logger_, level, msg);
    throw Error(msg);
}

std::vector<ChunkFile> ProtectionTable::HoldBlocks(unsigned long id, const TimePoint& in,
                                                   const TimePoint& out, Blocks& blocks,
                                                   std::set<TimePoint>& recyclableKeys) {
    std::vector<ChunkFile> files;
    auto it = blocks.upper_bound(in);
    if (it != blocks.begin())
        --it;
    for (; it != blocks.end() && it->second.IsBetween(in, out); ++it) {
        it->second.GetProtections().insert(id);
        Hold(id, it->first, it->second, recyclableKeys);
        files.push_back(it->second.GetChunkFile());
    }
    return files;
}

void ProtectionTable::KeepRange(unsigned long id, const TimePoint& in, const TimePoint& out) {
    ids_[id];
    ranges_.Add(id, in, out);
}

bool ProtectionTable::HoldNewest(Blocks& blocks, std::set<TimePoint>& recyclableKeys) {
    if (ranges_.Empty() || blocks.empty())
        return false;
    auto& [key, block] = *blocks.rbegin();
    bool held = false;
    for (unsigned long id : ranges_.Covering(block)) {
        if (!block.GetProtections().insert(id).second)
            continue;
        Hold(id, key, block, recyclableKeys);
        held = true;
    }
    return held;
}

void ProtectionTable::Hold(unsigned long id, const TimePoint& key, FileSystem::Block& block,
                           std::set<TimePoint>& recyclableKeys) {
    recyclableKeys.erase(key);
    ids_[id].insert(key);
    MR_LOG(logger_, 20,
           "T" << trackId_ << ": Block at " << block.GetTcIn() << " on file "
               << block.GetChunkFile() << " protected with id " << static_cast<long>(id));
}

unsigned long ProtectionTable::Release(unsigned long id, Blocks& blocks,
                                       std::set<TimePoint>& recyclableKeys) {
    auto protection = ids_.find(id);
    unsigned long freed = 0;
    for (const TimePoint& key : protection->second) {
        auto block = blocks.find(key);
        if (block == blocks.end()) {
            MR_LOG(logger_, 40, "Block at " << key << " should exist!");
            continue;
        }
        auto& held = block->second.GetProtections();
        held.erase(id);
        if (held.empty()) {
            recyclableKeys.insert(key);
            ++freed;
        }
    }
    ids_.erase(protection);
    ranges_.Remove(id);
    return freed;
}
