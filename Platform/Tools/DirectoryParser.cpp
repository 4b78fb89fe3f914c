#include "Platform/Tools/DirectoryParser.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Moreld::Tools {

namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& directory, int error) {
    throw std::runtime_error("Cannot " + what + " directory " + directory + ": " +
                             std::strerror(error));
}

bool IsDotOrDotDot(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

DirectoryParser::DirectoryParser(const std::string& directory)
    : directory_(directory),
      prefix_(directory.empty() || directory.back() == '/' ? directory : directory + "/"),
      dir_(opendir(directory.c_str())) {
    if (!dir_) {
        Fail("open", directory_, errno);
    }
}

bool DirectoryParser::Next(std::string& entry) {
    for (;;) {
        // readdir tells its end from an error only through errno.
        errno = 0;
        const dirent* found = readdir(dir_.get());
        if (found == nullptr) {
            if (errno != 0) {
                Fail("read", directory_, errno);
            }
            return false;
        }
        if (!IsDotOrDotDot(found->d_name)) {
            entry = prefix_ + found->d_name;
            return true;
        }
    }
}

}  // namespace Moreld::Tools
