#pragma once

#include <iosfwd>
#include <string>

// Names one preallocated, equal-size chunk file of the volume: its number, the
// width of its zero-padded name, its size and the numbered track directory
// that holds it (0: directly in the root it is resolved against, the pool).
//
// A plain copyable value (6 x 8 bytes); the pool, the track indexes and the
// databases pass it by value. Comparison is deliberately asymmetric:
// operator== ignores fromEmptyFile, operator< looks at the file number only,
// so a std::set<ChunkFile> keeps one entry per file number.
//
// Thread safety: none of its own; a const value may be read from any thread.
class ChunkFile {
  public:
    // All numbers 0, fromEmptyFile true.
    ChunkFile() = default;
    // Fifth value 0, fromEmptyFile true.
    ChunkFile(long fileNumber, long fileNameSize, long fileSize, long directoryNumber);
    // fromEmptyFile true.
    ChunkFile(long fileNumber, long fileNameSize, long fileSize, long directoryNumber, long status);
    ChunkFile(long fileNumber, long fileNameSize, long fileSize, long directoryNumber, long status,
              bool fromEmptyFile);

    // Compares every field but fromEmptyFile.
    bool operator==(const ChunkFile& other) const;
    bool operator!=(const ChunkFile& other) const { return !(*this == other); }
    // Orders by file number only.
    bool operator<(const ChunkFile& other) const { return fileNumber_ < other.fileNumber_; }

    // The file size in bytes.
    long Size() const { return fileSize_; }
    long GetFileNumber() const { return fileNumber_; }
    long GetFileNameSize() const { return fileNameSize_; }
    long GetDirectoryNumber() const { return directoryNumber_; }
    void SetDirectoryNumber(long directoryNumber) { directoryNumber_ = directoryNumber; }
    // The fifth value (status): 0 unless a constructor or the caller sets it.
    // In the pool's in-flight rows it holds the row's status; elsewhere it is
    // only stored, compared and printed.
    long GetFifthValue() const { return status_; }
    void SetFifthValue(long status) { status_ = status; }
    bool IsFromEmptyFile() const { return fromEmptyFile_; }
    void SetFromEmptyFile(bool fromEmptyFile) { fromEmptyFile_ = fromEmptyFile; }

    // The bare name: the decimal file number, left-padded with '0' up to the
    // file-name size and never truncated; empty when that size is <= 0.
    std::string GetFileName() const;

    // root[/directoryNumber]/GetFileName(). The directory element is added
    // only when ignoreDirectory is false and the directory number is > 0; an
    // empty file name adds nothing.
    std::string GetAbsoluteFileName(const std::string& root, bool ignoreDirectory) const;

    // Fills this value from the path of an existing file. Returns false when
    // the file name has an extension or does not start with a decimal number
    // (after optional blanks and sign); the value is then left unchanged. On
    // success the name's length becomes the file-name size, the parent
    // directory's number (0 if its name is not a number) the directory number,
    // fileSize the size and the fifth value 0; fromEmptyFile is kept.
    bool FromFile(const std::string& path, long fileSize);

    // "<number>_<nameSize>_<size>_<directory>_<fifth value>_<fromEmptyFile 0|1>".
    std::string ToString() const;

  private:
    long fileNumber_ = 0;
    long fileNameSize_ = 0;
    long fileSize_ = 0;
    long directoryNumber_ = 0;
    long status_ = 0;
    bool fromEmptyFile_ = true;
};

// Writes ToString().
std::ostream& operator<<(std::ostream& os, const ChunkFile& file);
