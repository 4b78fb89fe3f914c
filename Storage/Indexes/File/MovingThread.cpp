#include "Storage/Indexes/File/MovingThread.h"

#include <boost/filesystem.hpp>

#include <exception>
#include <stdexcept>
#include <utility>

#include "Platform/File/Env.h"
#include "Platform/File/ExtendedAttributes.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"
#include "Storage/Indexes/File/ExtendedAttributeNames.h"

using Moreld::File::ExtendedAttributes;

MovingThread::MovingThread(unsigned long pollMs)
    : pollMs_(pollMs), logger_(tav::mr::logging::LoggingManager::GetLogger("MovingThread")) {}

MovingThread::~MovingThread() {
    Stop();
}

void MovingThread::Start() {
    if (worker_.joinable()) {
        throw std::runtime_error("MovingThread already started");
    }
    stopRequested_ = false;
    worker_ = std::thread([this] { Run(); });
}

void MovingThread::Stop() {
    if (!worker_.joinable()) {
        return;
    }
    stopRequested_ = true;
    worker_.join();
}

void MovingThread::Push(MovedData request) {
    {
        Moreld::Tools::MutexLock lock(pendingMutex_);
        ++pending_;
    }
    queue_.Push(std::move(request));
}

void MovingThread::WaitUntilDone() {
    Moreld::Tools::MutexLock lock(pendingMutex_);
    allHandled_.wait(lock, [this]() REQUIRES(pendingMutex_) { return pending_ == 0; });
}

void MovingThread::Run() {
    for (;;) {
        MovedData request;
        try {
            request = queue_.Pop(pollMs_);
        } catch (const std::runtime_error&) {
            // Only an empty queue ends the thread, so nothing pushed before
            // Stop is dropped.
            if (stopRequested_) {
                return;
            }
            continue;
        }
        Handle(request);
        MarkHandled();
    }
}

void MovingThread::Handle(const MovedData& request) {
    for (const ChunkFile& file : request.files) {
        if (MoveOne(request, file)) {
            ++moved_;
        } else {
            ++failed_;
        }
    }
}

bool MovingThread::MoveOne(const MovedData& request, const ChunkFile& file) {
    const std::string source = file.GetAbsoluteFileName(request.sourceDirectory, true);
    std::string directory;
    if (!ResolveDestination(request, source, directory)) {
        return false;
    }
    const std::string destination = file.GetAbsoluteFileName(directory, true);
    MR_LOG(logger_, 10, "Moving file " << source << " to " << destination);
    try {
        // Stamped before the rename: a file found moved always tells where
        // it came from.
        if (request.origin == MovedData::Origin::kWrite) {
            ExtendedAttributes::Write(source, ExtendedAttributeNames::kOriginDirectory,
                                      request.sourceDirectory);
        }
        const std::error_code error = Moreld::File::Env::Get().Rename(source, destination);
        if (error) {
            MR_LOG(logger_, 40,
                   "Couldn't move file " << source << " to " << destination << ": "
                                         << error.message());
            return false;
        }
    } catch (const std::exception& e) {
        MR_LOG(logger_, 40,
               "Couldn't move file " << source << " to " << destination << ": " << e.what());
        return false;
    }
    if (request.markEmptyFile) {
        MarkEmpty(destination);
    }
    return true;
}

void MovingThread::MarkEmpty(const std::string& path) {
    try {
        ExtendedAttributes::Write(path, ExtendedAttributeNames::kEmptyFile, "1");
    } catch (const std::exception& e) {
        // The file has arrived all the same; only the hint is missing.
        MR_LOG(logger_, 40, "Couldn't mark file " << path << " as empty: " << e.what());
    }
}

bool MovingThread::ResolveDestination(const MovedData& request, const std::string& source,
                                      std::string& directory) {
    if (request.origin != MovedData::Origin::kReadBack) {
        directory = request.destinationDirectory;
        return true;
    }
    try {
        bool found = false;
        directory =
            ExtendedAttributes::Read(source, ExtendedAttributeNames::kOriginDirectory, found);
        if (found && !directory.empty()) {
            return true;
        }
        MR_LOG(logger_, 40,
               "Couldn't move file " << source << ": no origin directory in "
                                     << ExtendedAttributeNames::kOriginDirectory);
    } catch (const std::exception& e) {
        MR_LOG(logger_, 40, "Couldn't move file " << source << ": " << e.what());
    }
    return false;
}

void MovingThread::MarkHandled() {
    Moreld::Tools::MutexLock lock(pendingMutex_);
    if (--pending_ == 0) {
        allHandled_.notify_all();
    }
}
