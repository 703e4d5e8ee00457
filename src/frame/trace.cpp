#include "frame/trace.hpp"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "frame/clock.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace trace_detail {
std::atomic<bool> on{false};
}

namespace {

std::mutex mtxTrace;
std::FILE* traceFile = nullptr;  // stderr or a file of ours; guarded by mtxTrace

void CloseTraceFile() {
  if (traceFile != nullptr && traceFile != stderr) std::fclose(traceFile);
  traceFile = nullptr;
}

// The destination named by the environment when the library is loaded.
[[maybe_unused]] const bool kTraceFromEnvironment = [] {
  const char* value = std::getenv("ZELTOCOM_TRACE");
  return value != nullptr && value[0] != '\0' && SetTraceDestination(value);
}();

}  // namespace

bool SetTraceDestination(std::string_view destination) {
  std::FILE* file = nullptr;
  if (destination == "stderr") {
    file = stderr;
  } else if (!destination.empty()) {
    file = std::fopen(std::string(destination).c_str(), "a");
    if (file == nullptr) return false;
  }
  std::lock_guard lock(mtxTrace);
  CloseTraceFile();
  traceFile = file;
  trace_detail::on.store(file != nullptr);
  return true;
}

void TraceLine(std::string_view path, std::string_view serial, std::string_view text) {
  if (!TraceOn()) return;
  const std::string line = StringPrintf(
      "%.6f %.*s %.*s %.*s\n", WallClockMs() / 1000.0, static_cast<int>(path.size()), path.data(),
      static_cast<int>(serial.empty() ? 1 : serial.size()), serial.empty() ? "-" : serial.data(),
      static_cast<int>(text.size()), text.data());
  std::lock_guard lock(mtxTrace);
  if (traceFile == nullptr) return;
  std::fputs(line.c_str(), traceFile);
  std::fflush(traceFile);
}

std::string EscapedBytes(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\r') {
      text += "\\r";
    } else if (c == '\n') {
      text += "\\n";
    } else if (c == '\t') {
      text += "\\t";
    } else if (c == '\\') {
      text += "\\\\";
    } else if (byte < 0x20 || byte > 0x7e) {
      text += StringPrintf("\\x%02X", byte);
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace zeltocom
