// zeltocom ports, zeltocom detect: which ports there are and what answers on them.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// Room the library's port lists need per path.
constexpr std::size_t kPathRoom = 256;

struct PathBuffers {
  explicit PathBuffers(std::size_t count) : storage(count, std::vector<char>(kPathRoom, '\0')) {
    for (auto& buffer : storage) pointers.push_back(buffer.data());
  }
  std::vector<std::string> First(int count) const {
    std::vector<std::string> paths;
    for (int i = 0; i < count && i < static_cast<int>(storage.size()); ++i)
      paths.emplace_back(storage[static_cast<std::size_t>(i)].data());
    return paths;
  }
  std::vector<std::vector<char>> storage;
  std::vector<char*> pointers;
};

// A host that opens a port takes an exclusive advisory lock on it; the
// kernel's list of locks names the process, without touching the line.
long LockHolder(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return 0;
  char file[64];
  std::snprintf(file, sizeof file, "%02x:%02x:%lu", major(status.st_dev), minor(status.st_dev),
                static_cast<unsigned long>(status.st_ino));
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    // "1: FLOCK  ADVISORY  WRITE 1234 00:18:5 0 EOF"; a waiter has "->" after "1:".
    std::istringstream words(line);
    const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    if (fields.size() >= 6 && fields[1] != "->" && fields[5] == file) {
      return std::strtol(fields[4].c_str(), nullptr, 10);
    }
  }
  return 0;
}

std::string ProcessName(long pid) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

std::vector<std::string> EnumeratedPorts() {
  const int count = ZeltoCom_EnumPorts();
  // The library empties the first 8 entries whatever the count.
  PathBuffers buffers(static_cast<std::size_t>(std::max(count, 8)));
  return buffers.First(count > 0 ? ZeltoCom_ListPortsDetected(buffers.pointers.data()) : 0);
}

int RunPorts(const Args& args) {
  Json ports = Json::MakeArray();
  Table table({{"path", "PORT"}, {"in_use", "OPEN"}});
  for (const std::string& path : EnumeratedPorts()) {
    const long pid = LockHolder(path);
    Json row = Json::MakeObject();
    row.Set("path", path).Set("open", pid != 0);
    row.Set("pid", pid != 0 ? Json(pid) : Json());
    row.Set("process", pid != 0 ? Json(ProcessName(pid)) : Json());
    ports.Push(row);
    row.Set("in_use", pid != 0 ? "yes, pid " + std::to_string(pid) + " " + ProcessName(pid) : "no");
    table.Add(row);
  }
  PrintResult(args.json(), Json::MakeObject().Set("ports", ports), table);
  return kSuccess;
}

// Path, serial number, rate, model and family of an open port.
Json Identity(const std::string& path) {
  char type[32] = "";
  ZeltoCom_GetDeviceType(path.c_str(), type);
  const Answer model = Send(path, "GETHW");
  Json row = Json::MakeObject();
  row.Set("path", path).Set("serial", SerialOf(path));
  row.Set("baud", ZeltoCom_GetBaudrate(path.c_str()));
  row.Set("model", model.ok() ? Json(model.text) : Json());
  row.Set("type", type);
  return row;
}

int RunDetect(const Args& args) {
  const int baud = args.Baud();
  ZeltoCom_ClearDetectionFilters();
  for (const std::string& filter : args.Values("--filter")) {
    ZeltoCom_AddDetectionFilter(filter.c_str());
  }
  const std::vector<std::string> enumerated = EnumeratedPorts();
  PathBuffers detected(std::max<std::size_t>(enumerated.size(), 1));
  int found = 0;
  {
    Progress progress("detecting on " + std::to_string(enumerated.size()) + " ports");
    found = ZeltoCom_Detect(detected.pointers.data(), baud);
  }
  if (found < 0) UsageError(LastError());
  // Detection closes what it found; opening again is quick, as the library
  // remembers each path's rate.
  const std::vector<std::string> paths = detected.First(found);
  if (!paths.empty()) OpenPorts(paths, baud);
  Json instruments = Json::MakeArray();
  Table table({{"path", "PORT"},
               {"serial", "SERIAL"},
               {"baud", "BAUD"},
               {"model", "MODEL"},
               {"type", "TYPE"}});
  for (const std::string& path : paths) {
    const Json row = Identity(path);
    instruments.Push(row);
    table.Add(row);
  }
  PrintResult(args.json(), Json::MakeObject().Set("instruments", instruments), table);
  return kSuccess;
}

}  // namespace

Command PortsCommand() {
  return {"ports",
          "",
          0,
          0,
          "the serial ports, and which are in use",
          "Lists the serial ports (those of ZELTOCOM_PORTS when it is set) and, for each,\n"
          "whether a process holds it open through ZeltoCom. Opens nothing.",
          {},
          RunPorts};
}

Command DetectCommand() {
  return {"detect",
          "",
          0,
          0,
          "the instruments that answer: serial, rate, model",
          "Probes every port at once and lists the instruments that answer: path, serial\n"
          "number, rate, model and family. A filter keeps only the models of a family\n"
          "word (analyser, ICT, spectrometer, ...) or one model text (\"Zelto 05-P\").",
          {{"--filter", "WORD", "keep instruments of this family or model", true}, BaudOption()},
          RunDetect};
}

}  // namespace cli
