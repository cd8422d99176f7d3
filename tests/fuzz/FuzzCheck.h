#pragma once
// A property that does not hold is a finding: libFuzzer keeps the input that broke it. The
// message names the property, so a crash report says what went wrong, not only where.

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                   \
  do {                                                                                          \
    if (!(condition)) {                                                                         \
      std::fprintf(stderr, "property does not hold: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
      std::abort();                                                                             \
    }                                                                                           \
  } while (false)
