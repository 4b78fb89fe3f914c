#include "Host/Hls/DownloadFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace loopstore::hls {

namespace {

constexpr size_t kPiece = 64 * 1024;

}  // namespace

DownloadFile::DownloadFile(const std::string& prefix) {
    std::string name = (std::filesystem::temp_directory_path() / (prefix + "XXXXXX")).string();
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    fd_ = mkstemp(buffer.data());
    if (fd_ < 0)
        throw std::runtime_error("cannot create a temporary file " + name + ": " +
                                 std::strerror(errno));
    path_ = buffer.data();
}

DownloadFile::~DownloadFile() {
    Unlink();
    close(fd_);
}

void DownloadFile::Unlink() {
    if (linked_)
        unlink(path_.c_str());
    linked_ = false;
}

bool DownloadFile::Read(std::string& piece) {
    piece.resize(kPiece);
    const ssize_t n = pread(fd_, piece.data(), kPiece, offset_);
    if (n < 0)
        throw std::runtime_error("cannot read " + path_ + ": " + std::strerror(errno));
    piece.resize(static_cast<size_t>(n));
    offset_ += n;
    return n > 0;
}

}  // namespace loopstore::hls
