#include "tests/Platform/File/ChunkFileTestUtil.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace loopstore::test {

Moreld::Plexa::DataChunk MakeChunk(int64_t seconds, size_t payloadSize,
                                   const std::map<std::string, std::string>& properties) {
    std::string payload(payloadSize, '\0');
    for (size_t i = 0; i < payloadSize; ++i) {
        payload[i] = static_cast<char>((i * 31 + static_cast<size_t>(seconds) * 7) & 0xff);
    }
    Moreld::Plexa::DataChunk chunk(Moreld::Time::TimePoint::FromSeconds(seconds),
                                   Moreld::Time::TimePoint::FromSeconds(1), std::move(payload));
    for (const auto& [key, value] : properties) {
        chunk.SetProperty(key, value);
    }
    return chunk;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void OverwriteAt(const std::string& path, uint64_t offset, const std::string& bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    if (!file) {
        throw std::runtime_error("cannot open " + path);
    }
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

void FlipByteAt(const std::string& path, uint64_t offset) {
    std::string byte = ReadWholeFile(path).substr(offset, 1);
    byte[0] = static_cast<char>(~byte[0]);
    OverwriteAt(path, offset, byte);
}

std::vector<uint64_t> OffsetsOf(const std::vector<Moreld::Plexa::DataChunk>& chunks) {
    std::vector<uint64_t> offsets;
    uint64_t offset = 16;
    for (const auto& chunk : chunks) {
        offsets.push_back(offset);
        offset += chunk.GetSizeOnFile();
    }
    return offsets;
}

}  // namespace loopstore::test
