#pragma once

#include <atomic>
#include <string>
#include <string_view>

namespace zeltocom {

// The wire trace: one line per command written, per wait ended and per
// thing the library does to a line on its own, each with a monotonic
// timestamp, the port path and the serial number of the instrument when
// known. Off unless ZELTOCOM_TRACE ("stderr" or a file path) was set when
// the library was loaded, or SetTraceDestination switched it on.

namespace trace_detail {
extern std::atomic<bool> on;
}

// Whether lines are being written; a relaxed load, so that tracing off
// costs one test per exchange.
inline bool TraceOn() { return trace_detail::on.load(std::memory_order_relaxed); }

// "stderr", a path (appended to) or empty to stop. False when the file
// cannot be opened; then the trace goes on as it was.
bool SetTraceDestination(std::string_view destination);

// Writes "<seconds> <path> <serial> <text>" when the trace is on; `serial`
// may be empty. Lines of several threads never interleave.
void TraceLine(std::string_view path, std::string_view serial, std::string_view text);

// `bytes` as printable ASCII: \r, \n, \t, \\ and \xNN for every other byte
// outside the printable range (0x04 as \x04).
std::string EscapedBytes(std::string_view bytes);

}  // namespace zeltocom
