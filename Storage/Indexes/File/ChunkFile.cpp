#include "Storage/Indexes/File/ChunkFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <ostream>

namespace {

// Reads a leading signed decimal number the way std::stoll does (blanks and a
// sign accepted, trailing text ignored) without throwing: directory scans
// meet many names that are not numbers.
bool ParseLeadingNumber(const std::string& text, long& value) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(begin, &end, 10);
    if (end == begin || errno == ERANGE) {
        return false;
    }
    value = static_cast<long>(parsed);
    return true;
}

}  // namespace

ChunkFile::ChunkFile(long fileNumber, long fileNameSize, long fileSize, long directoryNumber)
    : ChunkFile(fileNumber, fileNameSize, fileSize, directoryNumber, 0, true) {}

ChunkFile::ChunkFile(long fileNumber, long fileNameSize, long fileSize, long directoryNumber,
                     long status)
    : ChunkFile(fileNumber, fileNameSize, fileSize, directoryNumber, status, true) {}

ChunkFile::ChunkFile(long fileNumber, long fileNameSize, long fileSize, long directoryNumber,
                     long status, bool fromEmptyFile)
    : fileNumber_(fileNumber),
      fileNameSize_(fileNameSize),
      fileSize_(fileSize),
      directoryNumber_(directoryNumber),
      status_(status),
      fromEmptyFile_(fromEmptyFile) {}

bool ChunkFile::operator==(const ChunkFile& other) const {
    return fileNumber_ == other.fileNumber_ && fileNameSize_ == other.fileNameSize_ &&
           fileSize_ == other.fileSize_ && directoryNumber_ == other.directoryNumber_ &&
           status_ == other.status_;
}

std::string ChunkFile::GetFileName() const {
    if (fileNameSize_ <= 0) {
        return std::string();
    }
    char digits[32];
    std::snprintf(digits, sizeof(digits), "%ld", fileNumber_);
    std::string name(digits);
    if (static_cast<long>(name.size()) < fileNameSize_) {
        name.insert(0, static_cast<size_t>(fileNameSize_) - name.size(), '0');
    }
    return name;
}

std::string ChunkFile::GetAbsoluteFileName(const std::string& root, bool ignoreDirectory) const {
    std::filesystem::path path(root);
    if (!ignoreDirectory && directoryNumber_ > 0) {
        path /= std::to_string(directoryNumber_);
    }
    // Appending an empty element would leave a trailing separator behind.
    const std::string name = GetFileName();
    if (!name.empty()) {
        path /= name;
    }
    return path.string();
}

bool ChunkFile::FromFile(const std::string& path, long fileSize) {
    const std::filesystem::path filePath(path);
    const std::filesystem::path name = filePath.filename();
    // A chunk file's name is a bare number; a name with an extension is some
    // other file.
    if (name.has_extension()) {
        return false;
    }
    long number = 0;
    if (!ParseLeadingNumber(name.string(), number)) {
        return false;
    }
    long directoryNumber = 0;
    if (!ParseLeadingNumber(filePath.parent_path().filename().string(), directoryNumber)) {
        directoryNumber = 0;  // A non-numbered parent is the pool (or any root).
    }
    fileNumber_ = number;
    fileNameSize_ = static_cast<long>(name.string().size());
    directoryNumber_ = directoryNumber;
    status_ = 0;
    fileSize_ = fileSize;
    return true;
}

std::string ChunkFile::ToString() const {
    return std::to_string(fileNumber_) + "_" + std::to_string(fileNameSize_) + "_" +
           std::to_string(fileSize_) + "_" + std::to_string(directoryNumber_) + "_" +
           std::to_string(status_) + "_" + (fromEmptyFile_ ? "1" : "0");
}

std::ostream& operator<<(std::ostream& os, const ChunkFile& file) {
    return os << file.ToString();
}
