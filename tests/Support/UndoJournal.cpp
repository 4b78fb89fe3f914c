#include "tests/Support/UndoJournal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace loopstore::test {

namespace {

void PutU64(std::string& out, uint64_t value) {
    out.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

void PutText(std::string& out, const std::string& text) {
    PutU64(out, text.size());
    out += text;
}

class Cursor {
  public:
    explicit Cursor(const std::string& data) : data_(data) {}
    bool AtEnd() const { return position_ >= data_.size(); }
    bool U64(uint64_t& value) {
        if (data_.size() - position_ < sizeof(value))
            return false;
        std::memcpy(&value, data_.data() + position_, sizeof(value));
        position_ += sizeof(value);
        return true;
    }
    bool Text(std::string& text) {
        uint64_t size = 0;
        if (!U64(size) || data_.size() - position_ < size)
            return false;
        text.assign(data_, position_, size);
        position_ += size;
        return true;
    }

  private:
    const std::string& data_;
    size_t position_ = 0;
};

uint64_t FileSize(int fd) {
    const off_t end = ::lseek(fd, 0, SEEK_END);
    return end < 0 ? 0 : static_cast<uint64_t>(end);
}

// The bytes of [offset, offset + size) of `path` that exist, and its size.
std::string ReadRange(const std::string& path, uint64_t offset, uint64_t size, uint64_t& fileSize) {
    fileSize = 0;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    fileSize = FileSize(fd);
    std::string bytes;
    if (offset < fileSize) {
        bytes.resize(std::min(size, fileSize - offset));
        const ssize_t got = ::pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
    }
    ::close(fd);
    return bytes;
}

}  // namespace

UndoJournal::UndoJournal(const std::string& path)
    : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644)) {
    if (fd_ < 0)
        throw std::runtime_error("Cannot create undo journal " + path + ": " +
                                 std::strerror(errno));
}

UndoJournal::~UndoJournal() {
    ::close(fd_);
}

void UndoJournal::Append(const UndoRecord& record) {
    std::string body;
    body.push_back(static_cast<char>(record.kind));
    PutText(body, record.path);
    PutText(body, record.target);
    PutU64(body, record.offset);
    PutU64(body, record.oldSize);
    PutText(body, record.bytes);
    std::string frame;
    PutText(frame, body);
    // One write per record, so a record is either whole or torn at the end.
    const char* data = frame.data();
    size_t left = frame.size();
    while (left > 0) {
        const ssize_t n = ::write(fd_, data, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw std::runtime_error(std::string("Cannot write undo journal: ") +
                                     std::strerror(errno));
        data += n;
        left -= static_cast<size_t>(n);
    }
}

void UndoJournal::AppendWrite(const std::string& path, uint64_t offset, uint64_t size) {
    UndoRecord record;
    record.kind = UndoRecord::Kind::kWrite;
    record.path = path;
    record.offset = offset;
    record.bytes = ReadRange(path, offset, size, record.oldSize);
    Append(record);
}

void UndoJournal::AppendTruncate(const std::string& path, uint64_t size) {
    UndoRecord record;
    record.kind = UndoRecord::Kind::kTruncate;
    record.path = path;
    record.offset = size;
    record.bytes = ReadRange(path, size, UINT64_MAX, record.oldSize);
    Append(record);
}

std::vector<UndoRecord> UndoJournal::Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<UndoRecord> records;
    Cursor frames(data);
    std::string body;
    while (frames.Text(body) && !body.empty()) {
        UndoRecord record;
        record.kind = static_cast<UndoRecord::Kind>(body[0]);
        const std::string rest = body.substr(1);
        Cursor fields(rest);
        if (!fields.Text(record.path) || !fields.Text(record.target) ||
            !fields.U64(record.offset) || !fields.U64(record.oldSize) ||
            !fields.Text(record.bytes)) {
            break;
        }
        records.push_back(std::move(record));
    }
    return records;  // a torn last frame fails Text and ends the list
}

}  // namespace loopstore::test
