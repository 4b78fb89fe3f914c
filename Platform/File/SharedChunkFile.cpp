#include "Platform/File/SharedChunkFile.h"

#include <fcntl.h>

#include "Platform/File/Env.h"

namespace Moreld::File {

SharedChunkFile::SharedChunkFile(const std::string& fileName)
    : file_(Env::Get().OpenFile(fileName, O_RDONLY, "Cannot open chunk file")),
      size_(file_->Size()) {}

}  // namespace Moreld::File
