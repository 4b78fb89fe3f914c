#pragma once

#include "tests/Storage/Server/Factories/StorageFixture.h"

namespace loopstore::test {

// Checks a started store against its files on disk: every pool file is on
// disk exactly once, in the place "pool.db" gives it; each lent file is
// known to its track's index and the tracks' sizes add up to the lent files
// (so no file is listed twice or by two tracks); the remaining space counts
// the free files. Reports failures through gtest.
void ExpectFilesConserved(Storage& storage);

}  // namespace loopstore::test
