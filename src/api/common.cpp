// What every family of exported calls shares: the guard, held ports, host
// buffers and the detection checks.
#include "api/common.hpp"

#include <cstring>

#include "device/lines.hpp"
#include "frame/errors.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

namespace zeltocom {

std::atomic<TimeoutMs> LA_ResponseTimeout{2500};
std::atomic<int> ResponseBufferSize{0};

void CopyOut(char* buffer, std::string_view text) {
  if (buffer == nullptr) return;
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
}

bool CopyCut(char* buffer, int size, std::string_view text) {
  const bool whole = text.size() < static_cast<std::size_t>(size);
  CopyOut(buffer, whole ? text : text.substr(0, static_cast<std::size_t>(size) - 1));
  return whole;
}

bool CopyAnswer(char* buffer, std::string_view answer) {
  const int room = ResponseBufferSize;
  if (room <= 0) {
    CopyOut(buffer, answer);
    return true;
  }
  return CopyCut(buffer, room, answer);
}

std::optional<HeldPort> Call::Hold(PortRef port, const char* notOpenText) {
  std::unique_lock<std::mutex> line;
  if (port) line = LockLine(*port);
  // Closed by another thread while this one waited for the line.
  if (!port || port->fd() < 0) {
    if (notOpenText != nullptr) SetError(nullptr, notOpenText);
    return std::nullopt;
  }
  blamed_ = port;
  return HeldPort(std::move(port), std::move(line));
}

void ReportEscapedError(const Call& call, const char* text) noexcept {
  try {
    SetError(call.blamed(), text);
  } catch (...) {
    // Nothing more can be said without risking the host.
  }
}

std::optional<std::string> ReadFileOrReport(const std::string& path) {
  std::optional<std::string> text = ReadTextFile(path);
  if (!text) SetError(nullptr, StringPrintf("Unable to open file %s", path.c_str()));
  return text;
}

bool SerialNumberAcceptable(std::string_view serial) {
  if (serial.empty()) {
    SetError(nullptr, "No serial number given");
    return false;
  }
  if (serial.size() > kMaxSerialLength) {
    SetError(nullptr, "The serial number is too long (at most 14 characters)");
    return false;
  }
  return true;
}

bool BaudrateAccepted(int baudrate) {
  if (isBaudrateValid(baudrate)) return true;
  SetError(nullptr, "Invalid baud-rate");
  return false;
}

bool DetectionCheck() {
  if ((!FirstDetectionDone && ZeltoCom_EnumPorts() == 0) || DetectedPorts().empty()) {
    SetError(nullptr, "No ports detected");
    return false;
  }
  return true;
}

bool PortsDetected() {
  if (!FirstDetectionDone) {
    SetError(nullptr, "Detect ports first");
    return false;
  }
  if (DetectedPorts().empty()) {
    SetError(nullptr, "No ports detected");
    return false;
  }
  return true;
}

}  // namespace zeltocom
