#pragma once

#include <cstdio>
#include <cstdlib>

// Stops the fuzzer with a finding when an invariant of the code under test
// does not hold; active in every build type (unlike assert).
#define FUZZ_CHECK(condition)                                                             \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            std::fprintf(stderr, "FUZZ_CHECK failed: %s (%s:%d)\n", #condition, __FILE__, \
                         __LINE__);                                                       \
            std::abort();                                                                 \
        }                                                                                 \
    } while (false)
