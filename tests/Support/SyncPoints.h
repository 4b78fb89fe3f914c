#pragma once

#include <gtest/gtest.h>

#include "Platform/Tools/SyncPoint.h"

// First statement of a test that forces a thread order or a crash through
// sync points: in a build where they are compiled out (Release, unless
// -DLOOPSTORE_SYNC_POINTS=ON) the test skips and says why instead of
// hanging on a latch no point will open.
#define LOOPSTORE_REQUIRE_SYNC_POINTS()                                                     \
    do {                                                                                    \
        if (!::Moreld::Tools::SyncPoint::kCompiledIn)                                       \
            GTEST_SKIP() << "needs sync points: configure with -DLOOPSTORE_SYNC_POINTS=ON"; \
    } while (false)
