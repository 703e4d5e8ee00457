// Command line of the zeltosim executable.
#pragma once

#include <string>
#include <vector>

#include "zeltosim/zeltosim.hpp"

namespace zeltosim::tool {

// A light that --blink gives one fibre (1-based) of a port's own instrument.
struct FibreLight {
  int fibre = 1;
  Light light;
};

struct PortSetup {
  Config master;
  LineOptions line;
  std::vector<Config> chained;
  std::vector<FibreLight> lights;
  int stationSize = 0;  // > 0: --station made this port that many ports
};

struct Options {
  bool help = false;
  bool verbose = false;  // every instrument's traffic on standard error
  std::vector<PortSetup> ports;
};

// Throws std::invalid_argument with a message fit for the user.
Options ParseOptions(const std::vector<std::string>& args);

extern const char* const kUsage;

}  // namespace zeltosim::tool
