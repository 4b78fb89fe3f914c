#pragma once

#include <stdexcept>
#include <string>

namespace MoreldStorageApi {

// The kinds of failure a caller of the storage must tell apart, so that it
// can answer each in its own way (a server maps them to status codes by
// type). Each is a std::runtime_error whose text is the storage's own
// message, unchanged: callers that only print what() see no difference.
// Anything else the storage throws is an internal failure.
class StorageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// An unknown track (or other named thing).
class NotFoundError : public StorageError {
  public:
    using StorageError::StorageError;
};

// Something to be created exists already (a track id in use).
class AlreadyExistsError : public StorageError {
  public:
    using StorageError::StorageError;
};

// A request refused for its own content, whatever the state of the store: a
// chunk before the end of its track, a zero duration, an empty range, an
// over-long property.
class InvalidArgumentError : public StorageError {
  public:
    using StorageError::StorageError;
};

// A request the store cannot serve in its current state, that may succeed
// once the state changes: a track with readers or a writer on it, a track
// without files, nothing to protect, no pool.
class StoreBusyError : public StorageError {
  public:
    using StorageError::StorageError;
};

// The store has no room left: the pool is short of files, or every file of
// a track is protected.
class OutOfSpaceError : public StorageError {
  public:
    using StorageError::StorageError;
};

// A file or database operation failed (an errno or an SQLite error).
class IoError : public StorageError {
  public:
    using StorageError::StorageError;
};

// Stored data is lost: chunks accepted but not stored, or a record that
// reads back damaged.
class DataLossError : public StorageError {
  public:
    using StorageError::StorageError;
};

// A record read back does not check (a bad header, a checksum mismatch).
class CorruptionError : public DataLossError {
  public:
    using DataLossError::DataLossError;
};

namespace detail {

template <typename Error>
void ThrowIf(const std::exception& error, const std::string& text) {
    if (dynamic_cast<const Error*>(&error) != nullptr)
        throw Error(text);
}

}  // namespace detail

// Throws an error of the same kind as `error`, with `text` for its text: for
// a caller that adds context to a storage error without losing its kind. A
// plain std::runtime_error when `error` is none of the kinds above.
[[noreturn]] inline void ThrowAmended(const std::exception& error, const std::string& text) {
    detail::ThrowIf<NotFoundError>(error, text);
    detail::ThrowIf<AlreadyExistsError>(error, text);
    detail::ThrowIf<InvalidArgumentError>(error, text);
    detail::ThrowIf<StoreBusyError>(error, text);
    detail::ThrowIf<OutOfSpaceError>(error, text);
    detail::ThrowIf<IoError>(error, text);
    detail::ThrowIf<CorruptionError>(error, text);  // before the kind it refines
    detail::ThrowIf<DataLossError>(error, text);
    throw std::runtime_error(text);
}

}  // namespace MoreldStorageApi
