// Error texts.
#include "frame/errors.hpp"
#include "api/common.hpp"
#include "frame/registry.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

// A port that is not open has no text of its own: the library's is given.
char* CopyError(char* buffer, const PortRef& port) {
  CopyOut(buffer, port ? GetPortErrorText(*port) : GetErrorDescription());
  return buffer;
}

}  // namespace

extern "C" {

char* ZeltoCom_GetError_Description(char* buffer) {
  return Guarded<char*>(nullptr, [&] { return CopyError(buffer, nullptr); });
}

char* ZeltoCom_GetError_DescriptionByPort(const char* devicePath, char* buffer) {
  return Guarded<char*>(nullptr,
                        [&] { return CopyError(buffer, PortsList_GetByDevPath(Arg(devicePath))); });
}

char* ZeltoCom_GetError_DescriptionBySN(const char* serialNumber, char* buffer) {
  return Guarded<char*>(nullptr, [&] {
    return CopyError(buffer, PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber)));
  });
}

}  // extern "C"
