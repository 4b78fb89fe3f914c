#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "Platform/Services/IServiceHandlerFactory.h"
#include "Platform/Services/Service.h"
#include "tests/Support/TempDir.h"

using Create = Moreld::Services::IServiceHandlerFactory* (*)(const char*, const char*, const char*);

TEST(EntryPoint, AHostLoadsTheLibraryAndRunsAStorage) {
    loopstore::test::TempDir dir;
    for (const char* sub : {"tracks", "db", "pool"})
        std::filesystem::create_directory(dir / sub);
    for (int i = 1; i <= 4; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%04d", i);
        loopstore::test::CreatePreallocatedFile(dir / "pool" + "/" + name, 4096);
    }
    void* library = dlopen(LOOPSTORE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto create = reinterpret_cast<Create>(dlsym(library, "loopstore_create_factory"));
    ASSERT_NE(create, nullptr) << dlerror();
    {
        std::unique_ptr<Moreld::Services::IServiceHandlerFactory> factory(
            create((dir / "tracks").c_str(), (dir / "db").c_str(), (dir / "pool").c_str()));
        std::unique_ptr<Moreld::Services::IService> base(factory->Construct({"storage", "host"}));
        auto* service = dynamic_cast<MoreldStorageApi::Service*>(base.get());
        ASSERT_NE(service, nullptr);
        Protocol::TrackParameters request, answer;
        request.set_size(8192);
        EXPECT_EQ(service->trackStorage->CreateTrack(request, answer), 1);
        EXPECT_EQ(answer.id(), 1);
        long remaining = 0;
        service->trackStorage->GetRemainingSpace(remaining);
        EXPECT_EQ(remaining, 8192);
        std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(
            service->trackWriterFactory->Create(1));
        Protocol::Chunk chunk;
        chunk.mutable_timepoint()->set_nanoseconds(1);
        chunk.mutable_duration()->set_nanoseconds(1000);
        chunk.set_data("hello");
        writer->Append(chunk);
    }
    dlclose(library);
}
