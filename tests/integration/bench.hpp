#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "frame/registry.hpp"
#include "support/lines.hpp"
#include "zeltocom.h"
#include "zeltosim/zeltosim.hpp"

// A test bench of simulated instruments. The library sees exactly the ports
// of the bench (through ZELTOCOM_PORTS), never the machine's serial ports,
// and every test starts from the state of a freshly loaded library.
//
// The line of the bench's instruments can be varied for a whole run:
// ZELTOCOM_TEST_BAUD (their rate, default 57600), ZELTOCOM_TEST_EOT=1 (they
// end answers with 0x04) and ZELTOCOM_TEST_PACED=1 (they write byte by byte
// at the line rate). Tests that need a particular line say so.
class SimBench : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  zeltosim::SimPort& AddPort(zeltosim::Config config, zeltosim::LineOptions line = BenchLine());
  // Names the bench's ports in ZELTOCOM_PORTS and enumerates them.
  void Publish();
  // Adds, publishes and opens one instrument at its own rate; the test ends
  // there when it does not open.
  zeltosim::SimPort& OpenPort(zeltosim::Config config, zeltosim::LineOptions line = BenchLine());
  // The same, with the instrument's log cleared of the opening's lines.
  zeltosim::SimPort& OpenQuiet(zeltosim::Config config, zeltosim::LineOptions line = BenchLine());

  // Sends `command` to an open port; the answer lands in answer_.
  int Send(const zeltosim::SimPort& port, const char* command);

  static std::string LastError();
  // A call's result, with the error text when it failed: "1", "0: Timeout".
  static std::string Outcome(int result);
  static std::string PortError(const zeltosim::SimPort& port);
  // The open ports' paths, ';' between them.
  static std::string Opened();
  // The library's record of an open port; the test ends when there is none.
  static zeltocom::PortRef Record(const zeltosim::SimPort& port);
  static bool IsOpen(const zeltosim::SimPort& port);
  // Ends the test with `what` and the library's last error unless `met`.
  static void Require(bool met, const std::string& what);
  // The speeds at which `command` arrived, in order.
  static std::vector<int> SpeedsOf(const zeltosim::SimPort& port, const std::string& command);
  // The lines that arrived, in order.
  static std::vector<std::string> Sent(const zeltosim::SimPort& port);
  // The blank-separated words of `text`: the lines a table row expects, in a line of its own.
  static std::vector<std::string> Words(const std::string& text);

  // The line of this run's instruments, and the same at another rate.
  static zeltosim::LineOptions BenchLine();
  static zeltosim::LineOptions At(int baud);

  std::vector<std::unique_ptr<zeltosim::SimPort>> ports_;
  char answer_[4096] = {};
};

zeltosim::Config Analyser(const std::string& serial, int fibers = 2);
zeltosim::Config Spectrometer(const std::string& serial,
                              const std::string& hardware = "Zelto 01-W2");
