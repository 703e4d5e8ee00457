// Error texts.
#include "api/common.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

char* CopyError(char* buffer, const s_CommPort* port) {
  if (port != nullptr) {
    CopyOut(buffer, port->errorText.view());
  } else {
    CopyOut(buffer, GetErrorDescription());
  }
  return buffer;
}

}  // namespace

extern "C" {

char* ZeltoCom_GetError_Description(char* buffer) { return CopyError(buffer, nullptr); }

char* ZeltoCom_GetError_DescriptionByPort(const char* devicePath, char* buffer) {
  return CopyError(buffer, PortsList_GetByDevPath(Arg(devicePath)));
}

char* ZeltoCom_GetError_DescriptionBySN(const char* serialNumber, char* buffer) {
  return CopyError(buffer, PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber)));
}

}  // extern "C"
