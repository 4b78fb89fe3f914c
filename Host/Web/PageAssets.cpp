#include "Host/Web/PageAssets.h"

#include <cstdint>
#include <cstdio>

#include "Host/Web/EmbeddedFile.h"

namespace loopstore::web {

namespace {

bool EndsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// FNV-1a: stable across runs and builds, unlike std::hash.
std::string Tag(std::string_view bytes) {
    uint64_t h = 14695981039346656037ull;
    for (const char c : bytes) {
        h ^= static_cast<unsigned char>(c);
        h *= 1099511628211ull;
    }
    char text[24];
    std::snprintf(text, sizeof text, "\"%016llx\"", static_cast<unsigned long long>(h));
    return text;
}

}  // namespace

std::string PageAssets::ContentType(std::string_view name) {
    if (EndsWith(name, ".html"))
        return "text/html; charset=utf-8";
    if (EndsWith(name, ".js") || EndsWith(name, ".mjs"))
        return "text/javascript; charset=utf-8";
    if (EndsWith(name, ".css"))
        return "text/css; charset=utf-8";
    if (EndsWith(name, ".json") || EndsWith(name, ".map"))
        return "application/json";
    return "application/octet-stream";
}

std::optional<PageAssets::Asset> PageAssets::Find(std::string_view name) {
    for (size_t i = 0; i < kEmbeddedFileCount; ++i) {
        const EmbeddedFile& file = kEmbeddedFiles[i];
        if (name != file.name)
            continue;
        const std::string_view bytes(file.data, file.size);
        return Asset{bytes, ContentType(name), Tag(bytes)};
    }
    return std::nullopt;
}

}  // namespace loopstore::web
