// The C entry point, so that a host can load the library with dlopen and
// find the factory by name:
//
//   using Create = Moreld::Services::IServiceHandlerFactory* (*)(const char*, const char*,
//                                                                const char*);
//   auto create = reinterpret_cast<Create>(dlsym(handle, "loopstore_create_factory"));
#include "Storage/Server/Factories/LoopRecordingFileFactory.h"

extern "C" __attribute__((visibility("default"))) Moreld::Services::IServiceHandlerFactory*
loopstore_create_factory(const char* trackDirectory, const char* dbDirectory,
                         const char* poolDirectory) {
    LoopRecordingFileFactory::FactoryParameters parameters{trackDirectory, dbDirectory,
                                                           poolDirectory};
    return new LoopRecordingFileFactory(parameters);
}
