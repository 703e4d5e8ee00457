// zeltocom ports, zeltocom detect: which ports there are and what answers on them.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// Who holds a port, as the kernel's list of locks tells without touching
// the line. A ZeltoCom host takes an exclusive whole-file flock on each port
// it opens; any other lock (POSIX or open-file-description record locks, a
// shared flock) is some other program's.
struct Holders {
  bool zeltocom = false;  // the exclusive flock of a ZeltoCom host
  long pid = 0;           // its process, when this namespace sees it
  bool other = false;     // any other lock
};

Holders HoldersOf(const std::string& path) {
  Holders holders;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return holders;
  char file[64];
  std::snprintf(file, sizeof file, "%02x:%02x:%lu", major(status.st_dev), minor(status.st_dev),
                static_cast<unsigned long>(status.st_ino));
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    // "1: FLOCK  ADVISORY  WRITE 1234 00:18:5 0 EOF"; a waiter has "->" after
    // "1:"; an OFD lock shows pid -1.
    std::istringstream words(line);
    const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    if (fields.size() < 6 || fields[1] == "->" || fields[5] != file) continue;
    if (fields[1] == "FLOCK" && fields[3] == "WRITE") {
      holders.zeltocom = true;
      holders.pid = std::max(0L, std::strtol(fields[4].c_str(), nullptr, 10));
    } else {
      holders.other = true;
    }
  }
  return holders;
}

std::string ProcessName(long pid) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

// The OPEN column; a ZeltoCom holder is named even where another lock
// stands beside its own.
std::string InUse(const Holders& holders, const std::string& process) {
  if (holders.zeltocom) {
    return holders.pid > 0 ? "yes, pid " + std::to_string(holders.pid) + " " + process : "yes";
  }
  return holders.other ? "locked by another program" : "no";
}

// A listing of ports says where its ports came from: a line above the
// table, a member of the JSON.
void PrintListing(const std::string& key, Json list, const Table& table) {
  const Origin origin = PortsOrigin();
  if (!JsonWanted() && !Global().csv) std::printf("Ports from %s\n", origin.text);
  PrintResult({{"ports_from", origin.key}, {key, std::move(list)}}, table);
}

int RunPorts() {
  Json ports = Json::array();
  Table table({{"path", "PORT"}, {"in_use", "OPEN"}});
  for (const std::string& path : EnumeratedPorts()) {
    const Holders holders = HoldersOf(path);
    const std::string process = holders.pid > 0 ? ProcessName(holders.pid) : "";
    Json row = {{"path", path},
                {"open", holders.zeltocom},
                {"pid", holders.pid > 0 ? Json(holders.pid) : Json()},
                {"process", holders.pid > 0 ? Json(process) : Json()},
                {"locked_by_other", holders.other}};
    ports.push_back(row);
    row["in_use"] = InUse(holders, process);
    table.Add(row);
  }
  PrintListing("ports", ports, table);
  return kSuccess;
}

// Path, serial number, rate, model and family of an open port.
Json Identity(const std::string& path) {
  char type[32] = "";
  ZeltoCom_GetDeviceType(path.c_str(), type);
  const Answer model = Send(path, "GETHW");
  return {{"path", path},
          {"serial", SerialOf(path)},
          {"baud", ZeltoCom_GetBaudrate(path.c_str())},
          {"model", model.ok() ? Json(model.text) : Json()},
          {"type", type}};
}

struct DetectOptions {
  std::vector<std::string> filters;
  int baud = 0;
};

int RunDetect(const DetectOptions& options) {
  const int baud = options.baud;
  ZeltoCom_ClearDetectionFilters();
  for (const std::string& filter : options.filters) {
    ZeltoCom_AddDetectionFilter(filter.c_str());
  }
  const std::vector<std::string> enumerated = EnumeratedPorts();
  PathBuffers detected(std::max<std::size_t>(enumerated.size(), 1));
  int found = 0;
  {
    Progress progress("detecting on " + Count(enumerated.size(), "port"));
    found = ZeltoCom_Detect(detected.pointers.data(), baud);
  }
  if (found < 0) UsageError(LastError());
  // Detection closes what it found; opening again is quick, as the library
  // remembers each path's rate.
  const std::vector<std::string> paths = detected.First(found);
  if (!paths.empty()) OpenPorts(paths, baud);
  Json instruments = Json::array();
  Table table({{"path", "PORT"},
               {"serial", "SERIAL"},
               {"baud", "BAUD"},
               {"model", "MODEL"},
               {"type", "TYPE"}});
  for (const std::string& path : paths) {
    const Json row = Identity(path);
    instruments.push_back(row);
    table.Add(row);
  }
  PrintListing("instruments", instruments, table);
  return kSuccess;
}

}  // namespace

Subcommand AddPorts(CLI::App& root) {
  CLI::App* app = root.add_subcommand("ports", "the serial ports, and which are in use");
  app->footer("Lists the serial ports (those of ZELTOCOM_PORTS when it is set, even empty)\n"
              "and where the list came from; for each port, whether a process holds it open\n"
              "through ZeltoCom (pid and name) or another program has locked it. Opens nothing.");
  return {app, RunPorts};
}

Subcommand AddDetect(CLI::App& root) {
  auto options = std::make_shared<DetectOptions>();
  CLI::App* app = root.add_subcommand("detect", "the instruments that answer: serial, rate, model");
  app->footer("Probes every port at once and lists the instruments that answer: path, serial\n"
              "number, rate, model and family; and where the list of ports came from. A\n"
              "filter keeps only the models of a family word (analyser, ICT, spectrometer,\n"
              "...) or one model text (\"Zelto 05-P\").");
  app->add_option("-f,--filter", options->filters,
                  "keep instruments of this family or model (repeatable)")
      ->type_name("WORD")
      ->allow_extra_args(false);
  AddBaudOption(*app, options->baud);
  return {app, [options] { return RunDetect(*options); }};
}

}  // namespace cli
