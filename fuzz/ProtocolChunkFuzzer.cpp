// Takes fuzzed bytes as a Protocol::Chunk off the wire and follows it the way
// a writer and a reader do: Converter::Swap into a DataChunk, a record of a
// chunk file (appended to a file in memory), read back with the properties it
// has, and Converter::Fill into a message again. What comes out at each step
// must be what went in: time point, duration, payload and properties (the
// last value of a key named twice).

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/File/DataChunkFileReader.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/MemoryFile.h"

namespace {

using Moreld::File::ChunkFileHeader;
using Moreld::Plexa::Converter;
using Moreld::Plexa::DataChunk;

// A chunk file of `size` bytes with a valid header and room for one record.
std::string EmptyChunkFile(uint64_t size) {
    std::string file(size, '\0');
    ChunkFileHeader(7).EncodeTo(file.data());
    return file;
}

void CheckSameChunk(const Protocol::Chunk& message, const DataChunk& chunk) {
    FUZZ_CHECK(chunk.GetTimePoint().ToNanoseconds() == message.timepoint().nanoseconds());
    FUZZ_CHECK(chunk.GetDuration().ToNanoseconds() == message.duration().nanoseconds());
    FUZZ_CHECK(chunk.GetData() == message.data());
    DataChunk::Properties lastValues;
    for (const Protocol::Property& property : message.properties())
        lastValues[property.key()] = property.value();
    FUZZ_CHECK(chunk.GetProperties() == lastValues);
}

std::set<std::string> KeysOf(const DataChunk& chunk) {
    std::set<std::string> keys;
    for (const auto& [key, value] : chunk.GetProperties())
        keys.insert(key);
    return keys;
}

// Appends the chunk to a chunk file in memory and reads it back.
DataChunk ThroughChunkFile(const DataChunk& chunk) {
    static loopstore::fuzz::MemoryFile memory;
    const uint64_t fileSize = ChunkFileHeader::kSize + chunk.GetSizeOnFile();
    memory.Write(EmptyChunkFile(fileSize));
    {
        Moreld::File::DataChunkFileAppender appender(memory.Path(), false, fileSize);
        appender.SetNoFlush(true);
        FUZZ_CHECK(appender.Append(chunk));
        FUZZ_CHECK(appender.GetTimePoints() == std::set{chunk.GetTimePoint()});
    }
    DataChunk read;
    Moreld::File::DataChunkFileReader(memory.Path())
        .GetChunk(read, ChunkFileHeader::kFirstRecordOffset, KeysOf(chunk), chunk.GetTimePoint(),
                  chunk.GetSizeOnFile());
    return read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Protocol::Chunk received;
    if (!received.ParseFromArray(data, static_cast<int>(size)))
        return 0;
    Protocol::Chunk message = received;
    DataChunk chunk;
    Converter::Swap(chunk, message);
    CheckSameChunk(received, chunk);
    FUZZ_CHECK(message.data().empty() && message.properties_size() == 0);

    const DataChunk read = ThroughChunkFile(chunk);
    FUZZ_CHECK(read == chunk);

    Protocol::Chunk answer;
    Converter::Fill(read, answer, KeysOf(read));
    CheckSameChunk(answer, chunk);
    Converter::Fill(read, answer, {});
    FUZZ_CHECK(answer.properties_size() == 0);
    FUZZ_CHECK(Converter::From(Converter::To(chunk.GetTimePoint())) == chunk.GetTimePoint());
    return 0;
}
