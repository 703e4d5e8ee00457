#pragma once

#include <cstdlib>

// A broken promise of the code under test ends the run like a crash, so
// the fuzzer keeps the input that showed it.
inline void Require(bool promise) {
  if (!promise) std::abort();
}
