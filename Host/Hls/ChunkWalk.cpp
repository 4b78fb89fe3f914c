#include "Host/Hls/ChunkWalk.h"

namespace loopstore::hls {

namespace {

Protocol::TimePoint Proto(Moreld::Time::TimePoint t) {
    Protocol::TimePoint out;
    out.set_nanoseconds(t.ToNanoseconds());
    return out;
}

}  // namespace

media::ExportedBytes::NextChunkFunction WalkChunks(MoreldStorageApi::ITrackReader& reader,
                                                   Moreld::Time::TimePoint from,
                                                   Moreld::Time::TimePoint to) {
    // Where the walk stands: nothing read yet, or the last chunk's start.
    Protocol::TimePoint last;
    bool started = false;
    bool ended = false;
    return [&reader, from, to, last, started, ended](Protocol::Chunk& chunk) mutable {
        if (ended)
            return false;
        const Protocol::KeyList none;
        // Read aside: the caller's chunk is left as it is at the end.
        Protocol::Chunk next;
        bool found = false;
        if (started) {
            reader.GetNextChunk(last, none, next, found);
        } else {
            started = true;
            // The chunk that holds `from`, else the first after it.
            reader.GetChunk(Proto(from), none, next, found);
            if (!found)
                reader.GetNextChunk(Proto(from), none, next, found);
        }
        ended = !found || next.timepoint().nanoseconds() >= to.ToNanoseconds();
        if (ended)
            return false;
        last = next.timepoint();
        chunk.Swap(&next);
        return true;
    };
}

}  // namespace loopstore::hls
