#pragma once

#include <atomic>
#include <cstring>
#include <string_view>

namespace zeltocom {

struct s_CommPort;

// The library-wide response time-out in ms of every plain send.
extern std::atomic<int> LA_ResponseTimeout;

// A host's text argument; a null pointer reads as the empty text.
inline std::string_view Arg(const char* text) {
  return text != nullptr ? std::string_view(text) : std::string_view();
}

// Copies `text` with its terminator into a host buffer (nothing for null).
inline void CopyOut(char* buffer, std::string_view text) {
  if (buffer == nullptr) return;
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
}

// Enumerates on first use; false with "No ports detected" when no port is
// known.
bool DetectionCheck();

// The open port at `devicePath`, after the checks that a detection has been
// done and found ports; null with the error text set otherwise.
s_CommPort* DetectedOpenPort(std::string_view devicePath);

}  // namespace zeltocom
