#include "frame/errors.hpp"

#include <mutex>

#include "frame/fixed_text.hpp"
#include "frame/registry.hpp"

namespace zeltocom {

namespace {
std::mutex mtxErrDesc;
FixedText<kErrorTextSize> Error_Description;
thread_local std::string threadLastError;
}  // namespace

void SetError(s_CommPort* port, std::string_view text) {
  std::lock_guard lock(mtxErrDesc);
  if (port != nullptr) port->errorText.assign(text);
  Error_Description.assign(text);
  threadLastError.assign(Error_Description.view());
}

std::string GetErrorDescription() {
  std::lock_guard lock(mtxErrDesc);
  return std::string(Error_Description.view());
}

std::string ThreadLastError() { return threadLastError; }

void ClearThreadLastError() { threadLastError.clear(); }

std::string GetPortErrorText(const s_CommPort& port) {
  std::lock_guard lock(mtxErrDesc);
  return std::string(port.errorText.view());
}

}  // namespace zeltocom
