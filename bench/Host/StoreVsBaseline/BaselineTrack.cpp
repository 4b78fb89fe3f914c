#include "bench/Host/StoreVsBaseline/BaselineTrack.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace loopstore::bench {

namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& path, int error) {
    throw std::runtime_error(what + " " + path + ": " + std::strerror(error));
}

void EncodeRecordHead(char* head, int64_t timePoint, int64_t duration, uint64_t size) {
    std::memcpy(head, &timePoint, 8);
    std::memcpy(head + 8, &duration, 8);
    std::memcpy(head + 16, &size, 8);
}

}  // namespace

BaselineTrack::BaselineTrack(std::vector<std::string> paths, uint64_t fileSize)
    : paths_(std::move(paths)), fileSize_(fileSize) {
    for (const std::string& path : paths_) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            for (int open : fds_)
                ::close(open);
            Fail("cannot open", path, error);
        }
        fds_.push_back(fd);
    }
}

BaselineTrack::~BaselineTrack() {
    for (int fd : fds_)
        ::close(fd);
}

void BaselineTrack::Append(int64_t timePoint, int64_t duration, const std::string& payload) {
    const uint64_t recordSize = kRecordHeaderSize + payload.size();
    if (kFileHeaderSize + recordSize > fileSize_)
        throw std::runtime_error("a chunk of " + std::to_string(payload.size()) +
                                 " bytes does not fit a file of " + std::to_string(fileSize_));
    if (tail_ == 0)
        StartFile();
    if (tail_ + recordSize > fileSize_)
        MoveToNextFile();
    const Location at{current_, tail_, payload.size(), duration};
    Write(at, timePoint, payload);
    tail_ += recordSize;
    std::lock_guard<std::mutex> lock(mutex_);
    index_.emplace(timePoint, at);
}

void BaselineTrack::Sync() {
    if (tail_ != 0 && ::fdatasync(fds_[current_]) != 0)
        Fail("cannot sync", paths_[current_], errno);
}

void BaselineTrack::StartFile() {
    char header[kFileHeaderSize] = {};
    ++generation_;
    std::memcpy(header, &generation_, sizeof generation_);
    if (::pwrite(fds_[current_], header, sizeof header, 0) != sizeof header)
        Fail("cannot write the header of", paths_[current_], errno);
    tail_ = kFileHeaderSize;
}

void BaselineTrack::MoveToNextFile() {
    Sync();
    current_ = (current_ + 1) % static_cast<int>(fds_.size());
    {
        // The oldest chunks of the ring are those of the file reused now.
        std::lock_guard<std::mutex> lock(mutex_);
        while (!index_.empty() && index_.begin()->second.file == current_)
            index_.erase(index_.begin());
    }
    StartFile();
}

void BaselineTrack::Write(const Location& at, int64_t timePoint, const std::string& payload) {
    char head[kRecordHeaderSize];
    EncodeRecordHead(head, timePoint, at.duration, at.size);
    iovec parts[2] = {{head, sizeof head}, {const_cast<char*>(payload.data()), payload.size()}};
    const ssize_t expected = static_cast<ssize_t>(sizeof head + payload.size());
    if (::pwritev(fds_[at.file], parts, 2, static_cast<off_t>(at.offset)) != expected)
        Fail("cannot write a chunk at offset " + std::to_string(at.offset) + " of", paths_[at.file],
             errno);
}

bool BaselineTrack::Read(int64_t timePoint, const Location& at, std::string& payload) const {
    char head[kRecordHeaderSize];
    payload.resize(at.size);
    iovec parts[2] = {{head, sizeof head}, {payload.data(), payload.size()}};
    const ssize_t expected = static_cast<ssize_t>(sizeof head + at.size);
    if (::preadv(fds_[at.file], parts, 2, static_cast<off_t>(at.offset)) != expected)
        Fail("cannot read a chunk at offset " + std::to_string(at.offset) + " of", paths_[at.file],
             errno);
    int64_t stored = 0;
    std::memcpy(&stored, head, sizeof stored);
    return stored == timePoint;
}

bool BaselineTrack::Get(int64_t timePoint, std::string& payload) const {
    std::unique_lock<std::mutex> lock(mutex_);
    auto it = index_.upper_bound(timePoint);
    if (it == index_.begin())
        return false;
    --it;
    if (timePoint >= it->first + it->second.duration)
        return false;
    const int64_t start = it->first;
    const Location at = it->second;
    lock.unlock();
    return Read(start, at, payload);
}

bool BaselineTrack::Next(int64_t& timePoint, std::string& payload) const {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto it = index_.upper_bound(timePoint);
    if (it == index_.end())
        return false;
    const int64_t start = it->first;
    const Location at = it->second;
    lock.unlock();
    timePoint = start;
    return Read(start, at, payload);
}

Contender::Range BaselineTrack::Range() const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index_.empty())
        return {};
    const auto& last = *index_.rbegin();
    return {index_.begin()->first, last.first + last.second.duration};
}

size_t BaselineTrack::ChunkCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return index_.size();
}

int BaselineTrack::FileOf(int64_t timePoint) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = index_.find(timePoint);
    return it == index_.end() ? -1 : it->second.file;
}

}  // namespace loopstore::bench
