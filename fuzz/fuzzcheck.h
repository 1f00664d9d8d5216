#pragma once
// A fuzz target's assertion: a broken property ends the run as a crash, which
// libFuzzer reports with the input that caused it (assert() would vanish
// from a build with NDEBUG).

#include <cstdlib>

inline void check(bool condition)
{
    if (!condition) {
        std::abort();
    }
}
