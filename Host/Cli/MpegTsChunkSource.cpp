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
        // What has arrived, without waiting for a full buffer: a chunk of a
        // live stream is complete as soon as its last packet is.
        const bool more = in_.peek() != std::istream::traits_type::eof();
        std::streamsize n =
            more ? in_.readsome(buffer.data(), static_cast<std::streamsize>(buffer.size())) : 0;
        if (more && n == 0) {
            // A buffer that cannot say what it holds: one byte at a time.
            in_.read(buffer.data(), 1);
            n = in_.gcount();
        }
        if (in_.bad())
            throw CliError("cannot read the input stream");
        chunker_.Feed(std::string_view(buffer.data(), static_cast<size_t>(n)));
        if (!more) {
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
