#include "Platform/File/ExtendedAttributes.h"

#include <sys/types.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Moreld::File {

namespace {

[[noreturn]] void ThrowErrno(const char* operation, const std::string& path,
                             const std::string& name) {
    const int error = errno;
    std::string text = std::string("Cannot ") + operation + " extended attribute";
    if (!name.empty()) {
        text += " " + name;
    }
    throw std::runtime_error(text + " of " + path + ": " + std::strerror(error));
}

}  // namespace

void ExtendedAttributes::Write(const std::string& path, const std::string& name,
                               const std::string& value) {
    if (::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) {
        ThrowErrno("write", path, name);
    }
}

// The size is asked first; the value may grow between the two calls (ERANGE),
// in which case both are made again.
std::string ExtendedAttributes::Read(const std::string& path, const std::string& name,
                                     bool& found) {
    found = false;
    for (;;) {
        ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
        if (size < 0) {
            if (errno == ENODATA) {
                return {};
            }
            ThrowErrno("read", path, name);
        }
        std::string value(static_cast<size_t>(size), '\0');
        size = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
        if (size >= 0) {
            value.resize(static_cast<size_t>(size));
            found = true;
            return value;
        }
        if (errno == ENODATA) {
            return {};
        }
        if (errno != ERANGE) {
            ThrowErrno("read", path, name);
        }
    }
}

void ExtendedAttributes::Remove(const std::string& path, const std::string& name) {
    if (::removexattr(path.c_str(), name.c_str()) != 0 && errno != ENODATA) {
        ThrowErrno("remove", path, name);
    }
}

std::vector<std::string> ExtendedAttributes::List(const std::string& path) {
    for (;;) {
        ssize_t size = ::listxattr(path.c_str(), nullptr, 0);
        if (size < 0) {
            ThrowErrno("list", path, "");
        }
        std::string names(static_cast<size_t>(size), '\0');
        size = ::listxattr(path.c_str(), names.data(), names.size());
        if (size < 0) {
            if (errno == ERANGE) {
                continue;
            }
            ThrowErrno("list", path, "");
        }
        names.resize(static_cast<size_t>(size));
        // The kernel returns the names one after the other, each ended by NUL.
        std::vector<std::string> result;
        size_t start = 0;
        while (start < names.size()) {
            size_t end = names.find('\0', start);
            if (end == std::string::npos) {
                end = names.size();
            }
            result.push_back(names.substr(start, end - start));
            start = end + 1;
        }
        return result;
    }
}

}  // namespace Moreld::File
