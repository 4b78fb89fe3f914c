#pragma once

#include <string>

namespace loopstore::hls {

// A file that holds one download while it is made and sent: created under
// the temporary directory, written by its path (a muxer opens it), then
// read through the descriptor kept since its creation. Its name is removed
// once it is written, and at the latest on destruction, so that nothing is
// left behind however the download ends.
//
// Owns the descriptor. One thread at a time.
class DownloadFile {
  public:
    // Throws std::runtime_error when the file cannot be created.
    explicit DownloadFile(const std::string& prefix);
    ~DownloadFile();
    DownloadFile(const DownloadFile&) = delete;
    DownloadFile& operator=(const DownloadFile&) = delete;

    const std::string& Path() const { return path_; }
    // Removes the name; the content stays readable here.
    void Unlink();
    // The next bytes (up to 64 KiB) into `piece`; false, `piece` empty, at
    // the end. Throws std::runtime_error on a read failure.
    bool Read(std::string& piece);

  private:
    std::string path_;
    int fd_ = -1;
    bool linked_ = true;
    long long offset_ = 0;
};

}  // namespace loopstore::hls
