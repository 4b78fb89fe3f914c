#pragma once

#include <cstddef>

namespace loopstore::web {

// A file built into the program (the page and its scripts), generated from
// web/ by cmake/EmbedFiles.cmake. Static storage; read-only.
struct EmbeddedFile {
    const char* name;
    const char* data;
    size_t size;
};

extern const EmbeddedFile kEmbeddedFiles[];
extern const size_t kEmbeddedFileCount;

}  // namespace loopstore::web
