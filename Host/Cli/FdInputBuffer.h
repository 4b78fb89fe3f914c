#pragma once

#include <atomic>
#include <streambuf>
#include <vector>

namespace loopstore::cli {

// A stream buffer over a file descriptor (standard input) that hands out
// what one read(2) returns, so that a live pipe's bytes are seen as they
// arrive rather than once a large read is filled (istream::readsome after a
// peek takes exactly that). Reads wait in poll(2) and end the stream when
// `stop` is set.
//
// Does not own the descriptor. One thread.
class FdInputBuffer : public std::streambuf {
  public:
    FdInputBuffer(int fd, const std::atomic<bool>* stop);

  protected:
    int_type underflow() override;
    std::streamsize showmanyc() override;

  private:
    // Waits until the descriptor can be read; false when stopped.
    bool WaitReadable();

    const int fd_;
    const std::atomic<bool>* stop_;
    std::vector<char> buffer_;
};

}  // namespace loopstore::cli
