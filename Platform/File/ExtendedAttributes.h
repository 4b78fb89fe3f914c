#pragma once

#include <string>
#include <vector>

namespace Moreld::File {

// Extended attributes of files (Linux xattr system calls). Names carry their
// namespace ("user.originDirectory"); values may hold any bytes.
//
// Stateless; safe from any thread (the file system orders concurrent calls on
// one file).
class ExtendedAttributes {
  public:
    ExtendedAttributes() = delete;

    // Creates or replaces attribute `name` of `path`. Throws std::runtime_error
    // naming the path, the attribute and the errno text.
    static void Write(const std::string& path, const std::string& name, const std::string& value);
    // The value of attribute `name` of `path`. An absent attribute is not an
    // error: `found` is false and "" is returned. Throws std::runtime_error
    // for other failures (missing file, no xattr support).
    static std::string Read(const std::string& path, const std::string& name, bool& found);
    // Removes attribute `name` of `path`; an absent attribute is not an error.
    // Throws std::runtime_error for other failures.
    static void Remove(const std::string& path, const std::string& name);
    // The names of the attributes of `path` that the caller may see. Throws
    // std::runtime_error on failure.
    static std::vector<std::string> List(const std::string& path);
};

}  // namespace Moreld::File
