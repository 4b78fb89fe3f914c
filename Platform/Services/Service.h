#pragma once

#include <memory>
#include <utility>

#include "Platform/Services/IService.h"
#include "Platform/Services/ITrackReaderFactory.h"
#include "Platform/Services/ITrackRetention.h"
#include "Platform/Services/ITrackStorage.h"
#include "Platform/Services/ITrackTimeline.h"
#include "Platform/Services/ITrackWriterFactory.h"

namespace MoreldStorageApi {

// The storage service a factory hands to the host: the three objects the
// host talks to. The service owns them; they may refer to the factory that
// built them, which must outlive the service. Not synchronised: the slots
// are filled once, before the host uses them.
class Service : public Moreld::Services::IService {
  public:
    // Each setter takes ownership of `object`, deleting the object the slot
    // held before the slot takes the new one.
    void SetTrackStorage(std::unique_ptr<ITrackStorage> object) {
        trackStorage.reset();
        trackStorage = std::move(object);
    }
    void SetTrackWriterFactory(std::unique_ptr<ITrackWriterFactory> object) {
        trackWriterFactory.reset();
        trackWriterFactory = std::move(object);
    }
    void SetTrackReaderFactory(std::unique_ptr<ITrackReaderFactory> object) {
        trackReaderFactory.reset();
        trackReaderFactory = std::move(object);
    }

    // Optional: a storage without retention by age leaves it empty.
    void SetTrackRetention(std::unique_ptr<ITrackRetention> object) {
        trackRetention.reset();
        trackRetention = std::move(object);
    }

    // Optional: a storage that cannot answer from its index leaves it empty.
    void SetTrackTimeline(std::unique_ptr<ITrackTimeline> object) {
        trackTimeline.reset();
        trackTimeline = std::move(object);
    }

    std::unique_ptr<ITrackStorage> trackStorage;
    std::unique_ptr<ITrackWriterFactory> trackWriterFactory;
    std::unique_ptr<ITrackReaderFactory> trackReaderFactory;
    std::unique_ptr<ITrackRetention> trackRetention;
    std::unique_ptr<ITrackTimeline> trackTimeline;
};

}  // namespace MoreldStorageApi
