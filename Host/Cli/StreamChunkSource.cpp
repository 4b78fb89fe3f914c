#include "Host/Cli/StreamChunkSource.h"

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

StreamChunkSource::StreamChunkSource(std::istream& in, std::string head, uint64_t chunkSize,
                                     Moreld::Time::TimePoint chunkDuration)
    : in_(in), head_(std::move(head)), chunkSize_(chunkSize), chunkDuration_(chunkDuration) {}

bool StreamChunkSource::Next(Moreld::Time::TimePoint, SourceChunk& out) {
    out.payload.swap(head_);
    head_.clear();
    if (out.payload.size() > chunkSize_) {
        head_ = out.payload.substr(chunkSize_);
        out.payload.resize(chunkSize_);
    }
    const size_t have = out.payload.size();
    if (have < chunkSize_ && in_) {
        out.payload.resize(chunkSize_);
        in_.read(out.payload.data() + have, static_cast<std::streamsize>(chunkSize_ - have));
        out.payload.resize(have + static_cast<size_t>(in_.gcount()));
        if (in_.bad())
            throw CliError("cannot read the input stream");
    }
    out.duration = chunkDuration_;
    return !out.payload.empty();
}

}  // namespace loopstore::cli
