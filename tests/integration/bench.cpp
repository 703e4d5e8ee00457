#include "bench.hpp"

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "frame/errors.hpp"
#include "frame/utils.hpp"
#include "serial/baudrates.hpp"
#include "serial/enumerate.hpp"

namespace {

int EnvInt(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] != '\0' ? std::atoi(value) : fallback;
}

}  // namespace

void SimBench::SetUp() {
  // Never let a test fall back to scanning the machine's own ports.
  setenv("ZELTOCOM_PORTS", ";", 1);
  ZeltoCom_CloseAll();
  zeltocom::ForgetBaudrates();
  zeltocom::SetDetectedPorts({});
  zeltocom::FirstDetectionDone = false;
  zeltocom::IDtoPortList_Clear();
  ZeltoCom_ClearDetectionFilters();
  zeltocom::SetError(nullptr, "");
  ZeltoCom_SetResponseTimeout(2500);
  ZeltoCom_SetResponseBufferSize(0);
}

void SimBench::TearDown() {
  ZeltoCom_CloseAll();
  ports_.clear();
}

zeltosim::LineOptions SimBench::BenchLine() {
  zeltosim::LineOptions line;
  line.baud = EnvInt("ZELTOCOM_TEST_BAUD", 57600);
  line.lineDelay = EnvInt("ZELTOCOM_TEST_PACED", 0) != 0;
  return line;
}

zeltosim::LineOptions SimBench::At(int baud) {
  zeltosim::LineOptions line = BenchLine();
  line.baud = baud;
  return line;
}

zeltosim::SimPort& SimBench::AddPort(zeltosim::Config config, zeltosim::LineOptions line) {
  ports_.push_back(std::make_unique<zeltosim::SimPort>(std::move(config), line));
  return *ports_.back();
}

void SimBench::Publish() {
  std::vector<const zeltosim::SimPort*> ports;
  for (const auto& port : ports_) ports.push_back(port.get());
  setenv("ZELTOCOM_PORTS", zeltosim::PortsVariable(ports).c_str(), 1);
  ASSERT_EQ(ZeltoCom_EnumPorts(), static_cast<int>(ports.size()));
}

zeltosim::SimPort& SimBench::OpenPort(zeltosim::Config config, zeltosim::LineOptions line) {
  zeltosim::SimPort& port = AddPort(std::move(config), line);
  Publish();
  // The open's first answers are due within a few tens of milliseconds,
  // which a loaded machine can keep the simulator from meeting. Opening is
  // tested on its own; here it is only the way in.
  bool opened = false;
  for (int attempt = 0; attempt < 3 && !opened; ++attempt) {
    opened = ZeltoCom_Open(port.path().c_str(), line.baud) == 1;
  }
  Require(opened, "opening " + port.path());
  return port;
}

zeltosim::SimPort& SimBench::OpenQuiet(zeltosim::Config config, zeltosim::LineOptions line) {
  zeltosim::SimPort& port = OpenPort(std::move(config), line);
  port.clearLog();
  return port;
}

int SimBench::Send(const zeltosim::SimPort& port, const char* command) {
  answer_[0] = '\0';
  return ZeltoCom_Send(port.path().c_str(), command, answer_);
}

std::string SimBench::LastError() {
  char buffer[512];
  return ZeltoCom_GetError_Description(buffer);
}

std::string SimBench::Outcome(int result) {
  return result == 1 ? "1" : std::to_string(result) + ": " + LastError();
}

std::string SimBench::Opened() {
  char text[4096] = "";
  ZeltoCom_GetOpenedPortsS(text, ';');
  return text;
}

std::string SimBench::PortError(const zeltosim::SimPort& port) {
  char buffer[512];
  return ZeltoCom_GetError_DescriptionByPort(port.path().c_str(), buffer);
}

zeltocom::PortRef SimBench::Record(const zeltosim::SimPort& port) {
  zeltocom::PortRef record = zeltocom::PortsList_GetByDevPath(port.path());
  Require(record != nullptr, port.path() + " is open");
  return record;
}

bool SimBench::IsOpen(const zeltosim::SimPort& port) {
  return zeltocom::PortsList_GetByDevPath(port.path()) != nullptr;
}

void SimBench::Require(bool met, const std::string& what) {
  // Thrown, not asserted: the helpers return values, and gtest ends a test
  // that throws, so nothing goes on to use what is not there.
  if (!met) throw std::runtime_error("precondition failed: " + what + ": " + LastError());
}

std::vector<int> SimBench::SpeedsOf(const zeltosim::SimPort& port, const std::string& command) {
  std::vector<int> speeds;
  for (const zeltosim::ReceivedLine& line : port.lineLog()) {
    if (zeltocom::strtoupper(line.text) == zeltocom::strtoupper(command)) {
      speeds.push_back(line.lineBaud);
    }
  }
  return speeds;
}

std::vector<std::string> SimBench::Sent(const zeltosim::SimPort& port) {
  std::vector<std::string> sent;
  for (const zeltosim::ReceivedLine& line : port.lineLog()) sent.push_back(line.text);
  return sent;
}

std::vector<std::string> SimBench::Words(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

zeltosim::Config Analyser(const std::string& serial, int fibers) {
  zeltosim::Config config;
  config.serial = serial;
  config.hardware = "Zelto 05-P";
  config.fibers.assign(static_cast<std::size_t>(fibers), zeltosim::Fiber{});
  config.captureTimeScale = 0.1;
  config.eot = EnvInt("ZELTOCOM_TEST_EOT", 0) != 0;
  return config;
}

zeltosim::Config Spectrometer(const std::string& serial, const std::string& hardware) {
  zeltosim::Config config = Analyser(serial, 0);
  config.hardware = hardware;
  return config;
}
