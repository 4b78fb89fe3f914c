#pragma once

#include <string>
#include <vector>

namespace loopstore::bench {

// The regular files under `directory`, at any depth, sorted by path.
std::vector<std::string> RegularFiles(const std::string& directory);

// The bytes of every file of `files`, each synced to the device and then
// dropped from the page cache (posix_fadvise DONTNEED), so that the next
// read of them comes from the device. Throws std::runtime_error naming the
// file that cannot be opened or synced.
void SyncAndDropFromCache(const std::vector<std::string>& files);
// The same without the sync, for files known to be clean: dirty pages would
// stay in the cache.
void DropFromCache(const std::vector<std::string>& files);

// True when `directory` lies on a tmpfs (RAM): device figures mean nothing
// there.
bool IsOnTmpfs(const std::string& directory);

}  // namespace loopstore::bench
