// A failed check is a finding: say which one and end the run so libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);          \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

// Console output of the code under test (settings notices, QR numbers) only slows the run.
inline void fuzz_silence_stdout()
{
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
}
