// A failed check is a finding: say which one and end the run so libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#define FUZZ_CHECK(condition)                                                                      \
    ((condition) ? (void)0                                                                         \
                 : (fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition), abort()))

// The heap text that the code under test returned, as a value; the block is released.
inline std::string fuzz_take(char *text) { const std::string copy = text; free(text); return copy; }
