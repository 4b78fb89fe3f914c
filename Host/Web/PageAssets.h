#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace loopstore::web {

// The page's files as built into the program, with what an HTTP answer
// needs: content type and an entity tag that changes with the bytes.
//
// Immutable after start; safe from any thread.
class PageAssets {
  public:
    struct Asset {
        std::string_view bytes;  // static storage
        std::string contentType;
        std::string etag;  // quoted
    };

    PageAssets() = delete;

    // The file named `name` ("index.html", "page.js"), or none.
    static std::optional<Asset> Find(std::string_view name);
    // The content type for a file name, by its extension.
    static std::string ContentType(std::string_view name);
};

}  // namespace loopstore::web
