#include "Storage/Indexes/Ram/ProtectionRanges.h"

void ProtectionRanges::Add(unsigned long id, const TimePoint& in, const TimePoint& out) {
    ranges_[id] = Range{in, out};
}

void ProtectionRanges::Remove(unsigned long id) {
    ranges_.erase(id);
}

std::vector<unsigned long> ProtectionRanges::Covering(const FileSystem::Block& block) const {
    std::vector<unsigned long> ids;
    if (block.GetChunks().empty())
        return ids;
    const TimePoint tcIn = block.GetTcIn();
    for (const auto& [id, range] : ranges_) {
        if (block.IsBetween(range.in, range.out) || tcIn == range.out)
            ids.push_back(id);
    }
    return ids;
}
