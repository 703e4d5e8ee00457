#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "zeltocom.h"
#include "zeltosim/zeltosim.hpp"

namespace zeltocom {
struct s_CommPort;
}

// A test bench of simulated instruments. The library sees exactly the ports
// of the bench (through ZELTOCOM_PORTS), never the machine's serial ports.
class SimBench : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  zeltosim::SimPort& AddPort(zeltosim::Config config, zeltosim::LineOptions line = {});
  // Names the bench's ports in ZELTOCOM_PORTS and enumerates them.
  void Publish();
  // Adds, publishes and opens one instrument at its own rate.
  zeltosim::SimPort& OpenPort(zeltosim::Config config, zeltosim::LineOptions line = {});

  static std::string LastError();
  static std::string PortError(const zeltosim::SimPort& port);
  // The library's record of an open port.
  static zeltocom::s_CommPort* Record(const zeltosim::SimPort& port);
  // The speeds at which `command` arrived, in order.
  static std::vector<int> SpeedsOf(const zeltosim::SimPort& port, const std::string& command);

  std::vector<std::unique_ptr<zeltosim::SimPort>> ports_;
};

zeltosim::Config Analyser(const std::string& serial, int fibers = 2);
zeltosim::Config Spectrometer(const std::string& serial, const std::string& hardware = "Zelto 01-W2");
