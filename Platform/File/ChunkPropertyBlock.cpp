#include "Platform/File/ChunkPropertyBlock.h"

#include <stdexcept>

#include "Platform/File/Coding.h"

namespace Moreld::File {

namespace {

constexpr uint64_t kCountSize = 4;
constexpr uint64_t kEntryHeaderSize = 8;

}  // namespace

uint64_t ChunkPropertyBlock::EncodedSize(const Properties& properties) {
    uint64_t size = kCountSize;
    for (const auto& [key, value] : properties) {
        if (key.size() > UINT32_MAX || value.size() > UINT32_MAX) {
            throw std::length_error("Chunk property " + key.substr(0, 64) +
                                    " is too large for a chunk file");
        }
        size += kEntryHeaderSize + key.size() + value.size();
    }
    if (size > UINT32_MAX || properties.size() > UINT32_MAX) {
        throw std::length_error("Chunk properties of " + std::to_string(size) +
                                " bytes are too large for a chunk file");
    }
    return size;
}

void ChunkPropertyBlock::AppendTo(const Properties& properties, std::string& dst) {
    char number[4];
    Coding::EncodeFixed32(number, static_cast<uint32_t>(properties.size()));
    dst.append(number, sizeof(number));
    for (const auto& [key, value] : properties) {
        Coding::EncodeFixed32(number, static_cast<uint32_t>(key.size()));
        dst.append(number, sizeof(number));
        Coding::EncodeFixed32(number, static_cast<uint32_t>(value.size()));
        dst.append(number, sizeof(number));
        dst.append(key);
        dst.append(value);
    }
}

std::string ChunkPropertyBlock::Parse(std::string_view block, const std::set<std::string>& wanted,
                                      Properties* out) {
    if (block.size() < kCountSize) {
        return "property block of " + std::to_string(block.size()) + " bytes is too short";
    }
    if (out != nullptr) {
        out->clear();
    }
    const uint32_t count = Coding::DecodeFixed32(block.data());
    block.remove_prefix(kCountSize);
    for (uint32_t i = 0; i < count; ++i) {
        if (block.size() < kEntryHeaderSize) {
            return "property " + std::to_string(i) + " of " + std::to_string(count) +
                   " runs past the property block";
        }
        const uint64_t keySize = Coding::DecodeFixed32(block.data());
        const uint64_t valueSize = Coding::DecodeFixed32(block.data() + 4);
        block.remove_prefix(kEntryHeaderSize);
        if (block.size() < keySize + valueSize) {
            return "property " + std::to_string(i) + " of " + std::to_string(count) +
                   " runs past the property block";
        }
        if (out != nullptr) {
            std::string key(block.substr(0, keySize));
            if (wanted.count(key) != 0) {
                (*out)[std::move(key)] = std::string(block.substr(keySize, valueSize));
            }
        }
        block.remove_prefix(keySize + valueSize);
    }
    if (!block.empty()) {
        return std::to_string(block.size()) + " bytes left after the " + std::to_string(count) +
               " properties of the property block";
    }
    return {};
}

}  // namespace Moreld::File
