#include "Host/Cli/MpegTsChunkSource.h"

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {
constexpr size_t kReadSize = 64 * 1024;
}

MpegTsChunkSource::MpegTsChunkSource(std::istream& in, std::string head, uint64_t chunkSize,
                                     Moreld::Time::TimePoint chunkDuration)
    : in_(in), chunker_(chunkDuration, chunkSize) {
    chunker_.Feed(head);
}

bool MpegTsChunkSource::Next(Moreld::Time::TimePoint, SourceChunk& out) {
    std::string buffer(kReadSize, '\0');
    while (chunker_.Ready().empty() && !finished_) {
        in_.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        if (in_.bad())
            throw CliError("cannot read the input stream");
        chunker_.Feed(std::string_view(buffer.data(), static_cast<size_t>(in_.gcount())));
        if (!in_) {
            chunker_.Finish();
            finished_ = true;
        }
    }
    if (chunker_.Ready().empty())
        return false;
    out = std::move(chunker_.Ready().front());
    chunker_.Ready().pop_front();
    return true;
}

}  // namespace loopstore::cli
