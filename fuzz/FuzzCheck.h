#pragma once

#include <cstdio>
#include <cstdlib>

// A property a fuzz target checks on every input. A broken one prints the expression and the
// place, then aborts, so that libFuzzer keeps the input as a crash (and the replay test fails).
#define FUZZ_CHECK(expr)                                                                        \
  ((expr) ? void(0)                                                                             \
          : (std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", __FILE__, __LINE__, #expr), \
             std::abort()))
