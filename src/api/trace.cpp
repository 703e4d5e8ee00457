// The wire trace, switched at run time.
#include <string>

#include "api/common.hpp"
#include "frame/errors.hpp"
#include "frame/trace.hpp"
#include "zeltocom.h"

using namespace zeltocom;

extern "C" {

int ZeltoCom_SetTrace(const char* destination) {
  return Guarded(-1, [&] {
    if (!SetTraceDestination(Arg(destination))) {
      SetError(nullptr, "Unable to open trace file " + std::string(Arg(destination)));
      return -1;
    }
    return 1;
  });
}

}  // extern "C"
