#pragma once

#include <atomic>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "frame/registry.hpp"

namespace zeltocom {

// The library-wide response time-out in ms of every plain send.
extern std::atomic<TimeoutMs> LA_ResponseTimeout;

// The room of the hosts' answer buffers in bytes, terminator included; 0
// (the initial value) means the answer's own length.
extern std::atomic<int> ResponseBufferSize;

constexpr const char* kNoBuffer = "No buffer given for the result";

// A host's text argument; a null pointer reads as the empty text.
inline std::string_view Arg(const char* text) {
  return text != nullptr ? std::string_view(text) : std::string_view();
}

// Copies `text` with its terminator into a host buffer (nothing for null).
// For texts of a fixed, documented size: paths, serial numbers, error texts.
void CopyOut(char* buffer, std::string_view text);

// Copies `text` into a host buffer of `size` (at least 1) bytes, cut to what
// it holds with the terminator; false when it had to be cut.
bool CopyCut(char* buffer, int size, std::string_view text);

// Copies an instrument's answer into a host buffer, cut to the response
// buffer size; false when it had to be cut.
bool CopyAnswer(char* buffer, std::string_view answer);

// A thread body's result: stored through `slot` (when given) and returned.
inline int StoreResult(int* slot, int result) {
  if (slot != nullptr) *slot = result;
  return result;
}

// A port found by a call and held for it: the line is the call's until the
// object goes, and the record stays valid even if another thread closes the
// port meanwhile (it then waits for this call to end).
class HeldPort {
 public:
  HeldPort(PortRef port, std::unique_lock<std::mutex> line)
      : port_(std::move(port)), line_(std::move(line)) {}
  s_CommPort* operator->() const { return port_.get(); }
  s_CommPort* get() const { return port_.get(); }
  // The instrument that holds the port's line now (the port itself unless a
  // daisy-chained instrument has it).
  s_CommPort* owner() const { return port_->busOwner; }

 private:
  PortRef port_;
  std::unique_lock<std::mutex> line_;
};

// What an exported call knows about itself for the guard.
class Call {
 public:
  // Takes the line of `port`. None, with `notOpenText` (when given) as the
  // error, when the port is not open (or was closed while this call waited
  // for its line).
  std::optional<HeldPort> Hold(PortRef port, const char* notOpenText);
  // The port that an escaping error is reported on as well.
  s_CommPort* blamed() const { return blamed_.get(); }

 private:
  PortRef blamed_;
};

// Reports an error that escaped an exported call.
void ReportEscapedError(const Call& call, const char* text) noexcept;

// The guard of every exported call: runs `body` (with or without a Call),
// and turns any exception into `failure` with the exception's text as the
// error, so nothing is ever thrown into the host.
template <typename Result, typename Body>
Result Guarded(Result failure, Body&& body) noexcept {
  Call call;
  try {
    if constexpr (std::is_invocable_v<Body&, Call&>) {
      return body(call);
    } else {
      return body();
    }
  } catch (const std::exception& e) {
    ReportEscapedError(call, e.what());
  } catch (...) {
    ReportEscapedError(call, "Unexpected internal error");
  }
  return failure;
}

// The content of the file at `path` (ReadTextFile); none, with "Unable to
// open file <path>" as the error, when it cannot be read.
std::optional<std::string> ReadFileOrReport(const std::string& path);

// A serial number an instrument could carry; false with "No serial number
// given" or "The serial number is too long ..." otherwise.
bool SerialNumberAcceptable(std::string_view serial);

// 0 or an admitted rate; false with "Invalid baud-rate" otherwise.
bool BaudrateAccepted(int baudrate);

// Enumerates on first use; false with "No ports detected" when no port is
// known.
bool DetectionCheck();

// The checks of the calls that need a detection that found ports: false
// with "Detect ports first" or "No ports detected" as the error.
bool PortsDetected();

}  // namespace zeltocom
