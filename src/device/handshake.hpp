#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "device/lines.hpp"
#include "frame/registry.hpp"

namespace zeltocom {

// What a freshly opened line tells about the instrument behind it.
struct Identity {
  std::string serialNumber;
  std::string eotFormat;
};

// A line opened for a handshake: closed again unless a port record takes it
// (by resetting `line`).
struct ProbedLine {
  ProbedLine() : line(std::make_shared<SerialLine>()) {}
  ProbedLine(const ProbedLine&) = delete;
  ProbedLine& operator=(const ProbedLine&) = delete;
  ~ProbedLine();
  std::shared_ptr<SerialLine> line;
};

// Paths that some thread is opening or probing right now, so that two
// threads never talk to one line at once, even under two names.
class PathClaim {
 public:
  explicit PathClaim(const std::string& path);
  ~PathClaim();
  PathClaim(const PathClaim&) = delete;
  PathClaim& operator=(const PathClaim&) = delete;
  bool held() const { return held_; }

 private:
  static inline std::mutex mutex_;
  static inline std::set<std::string> claimed_;
  std::string path_;
  bool held_ = false;
};

// Wakes the line, frees the instrument bus, learns the end marker and asks
// the serial number. None when nothing answered like an instrument.
std::optional<Identity> Handshake(SerialLine& line, int baud);

// The open port whose device is the one at `path` under another name; none
// when there is none.
PortRef OpenUnderAnotherName(const std::string& path);

enum class Probe { Accepted, NotFound, Busy };

// Tries `rates` in order on `path` and hands the first line whose instrument
// `accept` takes to `use` (which keeps the line by taking its descriptor, or
// leaves it to be closed); Accepted when `use` says so. Busy, at once, when
// another process holds the port.
template <typename Accept, typename Use>
Probe ProbeRates(const std::string& path, const std::vector<int>& rates, Accept accept, Use use) {
  for (int baud : rates) {
    ProbedLine line;
    const int opened = OpenLine(*line.line, path, baud);
    if (opened == kLineBusy) return Probe::Busy;
    if (opened != 1) continue;
    const std::optional<Identity> identity = Handshake(*line.line, baud);
    if (!identity || !accept(*identity)) continue;
    return use(line, *identity, baud) ? Probe::Accepted : Probe::NotFound;
  }
  return Probe::NotFound;
}

// What a rate search asks of an instrument: a serial number worth the name.
inline bool HasSerialNumber(const Identity& identity) { return identity.serialNumber.size() > 3; }

}  // namespace zeltocom
