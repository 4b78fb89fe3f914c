#include "Host/Server/RangeExporter.h"

#include <limits>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/SyncPoint.h"

namespace loopstore::host {

RangeExporter::RangeExporter(MoreldStorageApi::ITrackReader& reader, long trackId,
                             const Protocol::KeyList& keys)
    : reader_(reader),
      trackId_(trackId),
      keys_(keys),
      logger_(tav::mr::logging::LoggingManager::GetLogger("RangeExporter")) {}

bool RangeExporter::FirstAt(const Protocol::TimePoint& at, Protocol::TimePoint& start) {
    // The chunk after the last one that ends by `at` holds `at` or follows
    // it. Only the index is asked: a damaged record is still found.
    Protocol::TimePoint before;
    bool found = false;
    reader_.PreviousTimePoint(at, before, found);
    if (!found)
        before.set_nanoseconds(std::numeric_limits<int64_t>::min());
    reader_.NextTimePoint(before, start, found);
    return found;
}

bool RangeExporter::Read(const Protocol::TimePoint& start, Protocol::Chunk& chunk) {
    bool found = false;
    try {
        chunk.Clear();
        reader_.GetChunk(start, keys_, chunk, found);
    } catch (const std::exception& e) {
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": export skips the record at " << start.nanoseconds()
                   << "ns: " << e.what());
        damaged_.push_back(start.nanoseconds());
        return false;
    }
    return found;
}

long RangeExporter::Run(const Protocol::TimePoint& from, int64_t to,
                        const std::function<bool(const Protocol::Chunk&)>& send) {
    Protocol::TimePoint at;
    if (!FirstAt(from, at))
        return 0;
    long sent = 0;
    Protocol::Chunk chunk;
    for (bool more = true; more && at.nanoseconds() < to;) {
        if (Read(at, chunk)) {
            if (!send(chunk))
                break;
            ++sent;
            LOOPSTORE_SYNC_POINT("RangeExporter::Sent");
        }
        const Protocol::TimePoint current = at;
        reader_.NextTimePoint(current, at, more);
    }
    return sent;
}

}  // namespace loopstore::host
