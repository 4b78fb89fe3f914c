#include "Host/Cli/FdInputBuffer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {
constexpr size_t kReadSize = 64 * 1024;
constexpr int kPollMs = 200;  // how soon a stop is noticed
}  // namespace

FdInputBuffer::FdInputBuffer(int fd, const std::atomic<bool>* stop)
    : fd_(fd), stop_(stop), buffer_(kReadSize) {}

bool FdInputBuffer::WaitReadable() {
    pollfd wanted{fd_, POLLIN, 0};
    while (stop_ == nullptr || !stop_->load()) {
        const int ready = ::poll(&wanted, 1, kPollMs);
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            throw CliError("cannot wait for the input stream");
    }
    return false;
}

FdInputBuffer::int_type FdInputBuffer::underflow() {
    if (gptr() < egptr())
        return traits_type::to_int_type(*gptr());
    for (;;) {
        if (!WaitReadable())
            return traits_type::eof();
        const ssize_t n = ::read(fd_, buffer_.data(), buffer_.size());
        if (n == 0)
            return traits_type::eof();
        if (n > 0) {
            setg(buffer_.data(), buffer_.data(), buffer_.data() + n);
            return traits_type::to_int_type(*gptr());
        }
        if (errno != EINTR && errno != EAGAIN)
            throw CliError("cannot read the input stream");
    }
}

std::streamsize FdInputBuffer::showmanyc() {
    return egptr() - gptr();
}

}  // namespace loopstore::cli
