#include "Platform/Services/Service.h"

#include <gtest/gtest.h>

#include <memory>

#include "Platform/Services/IServiceHandlerFactory.h"

namespace {

using MoreldStorageApi::ITrackWriter;
using MoreldStorageApi::ITrackWriterFactory;
using MoreldStorageApi::Service;

// Counts the writer factories alive, to observe what the service deletes.
struct CountingFactory : ITrackWriterFactory {
    explicit CountingFactory(int& alive) : alive_(alive) { ++alive_; }
    ~CountingFactory() override { --alive_; }
    ITrackWriter* Create(const long&) override { return nullptr; }
    int& alive_;
};

struct NoServiceFactory : Moreld::Services::IServiceHandlerFactory {
    Moreld::Services::IService* Construct(const Moreld::Services::ExternalData&) override {
        return new Service();
    }
};

TEST(Service, OwnsItsSlotsAndReplacingDeletesTheFormerObject) {
    int alive = 0;
    NoServiceFactory factory;
    std::unique_ptr<Moreld::Services::IService> service(factory.Construct({"storage", "client"}));
    auto* storage = dynamic_cast<Service*>(service.get());
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(storage->trackStorage, nullptr);

    storage->SetTrackWriterFactory(std::make_unique<CountingFactory>(alive));
    EXPECT_EQ(alive, 1);
    storage->SetTrackWriterFactory(std::make_unique<CountingFactory>(alive));
    EXPECT_EQ(alive, 1);
    EXPECT_NE(storage->trackWriterFactory, nullptr);

    // The host deletes the service through IService.
    service.reset();
    EXPECT_EQ(alive, 0);
}

}  // namespace
