#include <cstdio>
#include <stdexcept>

#include "zeltosim/zeltosim.hpp"

namespace zeltosim {
namespace {

constexpr int kMaxStationPorts = 99;  // port numbers stay two digits wide
constexpr size_t kMaxSerial = 14;

}  // namespace

std::string StationSerial(const std::string& base, int number) {
  if (number < 1 || number > kMaxStationPorts)
    throw std::invalid_argument("station port number " + std::to_string(number) + " outside 1.." +
                                std::to_string(kMaxStationPorts));
  char suffix[4];
  std::snprintf(suffix, sizeof suffix, "%02d", number);
  return base.substr(0, kMaxSerial - 2) + suffix;
}

Station::Station(int count, Config base, LineOptions line) {
  if (count < 1 || count > kMaxStationPorts)
    throw std::invalid_argument("a station has 1 to " + std::to_string(kMaxStationPorts) +
                                " ports, not " + std::to_string(count));
  ports_.reserve(static_cast<size_t>(count));
  for (int number = 1; number <= count; ++number) {
    Config config = base;
    config.serial = StationSerial(base.serial, number);
    ports_.push_back(std::make_unique<SimPort>(std::move(config), line));
  }
}

Station::~Station() = default;

SimPort& Station::port(int index) {
  if (index < 0 || index >= size())
    throw std::out_of_range("station port " + std::to_string(index) + " outside 0.." +
                            std::to_string(size() - 1));
  return *ports_[static_cast<size_t>(index)];
}

int Station::size() const { return static_cast<int>(ports_.size()); }

std::string Station::portsVariable() const {
  std::vector<const SimPort*> all;
  for (const auto& port : ports_) all.push_back(port.get());
  return PortsVariable(all);
}

}  // namespace zeltosim
