#pragma once

#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/SharedMutex.h"

namespace Moreld::Tools {

// Holds a shared mutex exclusively, as MutexLock holds a Mutex. Name the
// native mutex when it is not std::shared_mutex: WriterLock<boost::shared_mutex>.
template <typename Native = std::shared_mutex>
using WriterLock = MutexLock<BasicSharedMutex<Native>>;

}  // namespace Moreld::Tools
