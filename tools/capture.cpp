// zeltocom capture, zeltocom chain: LED captures and every fiber's readings.
#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "commands.hpp"
#include "interrupt.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// What is read of each fiber, and the names of the numbers each answer holds.
struct Reading {
  std::string command;
  std::vector<std::string> fields;
};

// The list the Python package reads too (python/zeltocom/capture_readings.txt).
const std::vector<Reading>& Readings() {
  static const std::vector<Reading> readings = {
#include "capture_readings.inc"
  };
  return readings;
}

// A reading's heading: its name in capitals, or the short one a narrow
// column needs.
std::string Heading(const std::string& field) {
  static const std::map<std::string, std::string> shortened = {
      {"wavelength", "NM"}, {"red", "R"}, {"green", "G"}, {"blue", "B"}};
  if (const auto found = shortened.find(field); found != shortened.end()) return found->second;
  std::string heading = field;
  for (char& c : heading) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return heading;
}

std::vector<Column> ReadingColumns(Column first) {
  std::vector<Column> columns = {first, {"fiber", "FIBER"}};
  for (const Reading& reading : Readings()) {
    for (const std::string& field : reading.fields) columns.push_back({field, Heading(field)});
  }
  columns.push_back({"intensity_raw", "RAW"});
  columns.push_back({"scale", "SCALE"});
  return columns;
}

// One fiber's readings from the answers to Readings(), in their order.
Json FiberReadings(int fiber, const std::vector<Answer>& answers) {
  Json row = {{"fiber", fiber}};
  std::string errors;
  for (std::size_t r = 0; r < Readings().size(); ++r) {
    const Answer& answer = answers[r];
    std::istringstream words(answer.text);
    for (const std::string& field : Readings()[r].fields) {
      std::string word;
      row[field] = answer.ok() && words >> word ? NumberOrText(word) : Json();
    }
    if (!answer.ok() && errors.empty()) errors = answer.error;
  }
  if (!errors.empty()) row["error"] = errors;
  return row;
}

struct CaptureSettings {
  int pwm;
  int range;
  std::pair<long, long> fibers;  // {0, 0}: all of each instrument's
};

// Shows a row's intensity on the linear scale, keeping the reported value
// and its scale. The instrument that holds the line of `path` must be the
// one that reported it: a chained one is converted right after its reading.
void ShowLinearIntensity(Json& row, const std::string& path, const CaptureSettings& settings) {
  if (!row.contains("intensity") || !row["intensity"].is_number_integer()) return;
  const int raw = row["intensity"].get<int>();
  int logarithmic = 0;
  int linear = 0;
  if (ZeltoCom_GetIntensityScale(path.c_str(), &logarithmic) != 1 ||
      ZeltoCom_IntensityToLinear(path.c_str(), raw, settings.pwm, settings.range, &linear) != 1) {
    row["error"] = PortError(path);
    return;
  }
  row["intensity"] = linear;
  row["intensity_raw"] = raw;
  row["scale"] = logarithmic != 0 ? "logarithmic" : "linear";
}

// The rows of one instrument's fibers, from `first` on, read through the
// port at `path`; each goes into the table too, under `key` = `name`. A
// failed reading makes `status` a failure.
Json FiberRows(const std::vector<std::vector<Answer>>& answers, int first, Table& table,
               const std::string& key, const std::string& name, const std::string& path,
               const CaptureSettings& settings, int& status) {
  Json rows = Json::array();
  for (std::size_t f = 0; f < answers.size(); ++f) {
    Json row = FiberReadings(first + static_cast<int>(f), answers[f]);
    if (!row.contains("error")) ShowLinearIntensity(row, path, settings);
    if (row.contains("error")) status = kFailure;
    rows.push_back(row);
    row[key] = name;
    table.Add(row);
  }
  return rows;
}

// The options capture and chain share.
struct CaptureOptions {
  std::vector<std::string> ports;  // capture's; chain's port is the first
  std::vector<std::string> serials;
  int range = 0;
  bool pwm = false;
  std::string fibers;
  int baud = 0;
};

CaptureSettings Settings(const CaptureOptions& options) {
  CaptureSettings settings{options.pwm ? 1 : 0, options.range, {0, 0}};
  if (!options.fibers.empty()) settings.fibers = ParseSpan(options.fibers, "--fibers", 1, 99);
  return settings;
}

int FiberCount(const Answer& answer, const std::string& where) {
  return static_cast<int>(std::strtol(Expect(answer, where + ": GETNFIB").c_str(), nullptr, 10));
}

// The fibers to read of an instrument with `count` of them.
std::pair<int, int> FibersToRead(const CaptureSettings& settings, int count,
                                 const std::string& where) {
  if (settings.fibers.first == 0) return {1, count};
  if (settings.fibers.second > count) {
    Failure("--fibers: " + where + " has " + Count(static_cast<std::size_t>(count), "fiber"));
  }
  return {static_cast<int>(settings.fibers.first), static_cast<int>(settings.fibers.second)};
}

// One port of a capture: as named, as resolved, its fibers to read, and
// why it failed once it has.
struct CapturePort {
  std::string name;
  std::string path;
  std::pair<int, int> fibers{0, 0};
  std::string error;
  bool ok() const { return error.empty(); }
};

// The ports the names stand for; a name that stands for none is that port's
// failure, a port named twice bad usage.
std::vector<CapturePort> Resolved(const std::vector<std::string>& names, int baud) {
  std::vector<CapturePort> ports;
  std::set<std::string> seen;
  for (const std::string& name : names) {
    CapturePort& port = ports.emplace_back();
    port.name = name;
    port.path = name;
    try {
      port.path = ResolvePort(name, baud);
    } catch (const Stop& stop) {
      port.error = stop.text;
      continue;
    }
    if (!seen.insert(port.path).second) UsageError(port.path + " is named twice");
  }
  return ports;
}

// Notes each port's failure of one step done on all at once.
void NoteFailures(const std::vector<CapturePort*>& ports, const std::vector<Answer>& outcomes) {
  for (std::size_t i = 0; i < ports.size(); ++i) {
    if (!outcomes[i].ok()) ports[i]->error = ports[i]->path + ": " + outcomes[i].error;
  }
}

void LearnFibers(const std::vector<CapturePort*>& ports, const CaptureSettings& settings) {
  const std::vector<Answer> counts = SendToEach(PathsOf(ports), "GETNFIB");
  for (std::size_t i = 0; i < ports.size(); ++i) {
    try {
      ports[i]->fibers =
          FibersToRead(settings, FiberCount(counts[i], ports[i]->path), ports[i]->path);
    } catch (const Stop& stop) {
      ports[i]->error = stop.text;
    }
  }
}

// Each reading of each fiber is asked of all ports at once:
// answers[port][fiber - first fiber][reading].
std::vector<std::vector<std::vector<Answer>>> ReadAtOnce(const std::vector<CapturePort*>& ports) {
  Progress progress("reading the fibers");
  std::vector<std::vector<std::vector<Answer>>> answers(ports.size());
  int lastFiber = 0;
  for (const CapturePort* port : ports) lastFiber = std::max(lastFiber, port->fibers.second);
  for (int fiber = 1; fiber <= lastFiber; ++fiber) {
    std::vector<std::size_t> asked;
    std::vector<std::string> askedPaths;
    for (std::size_t i = 0; i < ports.size(); ++i) {
      if (fiber >= ports[i]->fibers.first && fiber <= ports[i]->fibers.second) {
        asked.push_back(i);
        askedPaths.push_back(ports[i]->path);
      }
    }
    if (asked.empty()) continue;
    for (const std::size_t i : asked) answers[i].emplace_back();
    for (const Reading& reading : Readings()) {
      const std::vector<Answer> got = SendToEach(askedPaths, FiberCommand(reading.command, fiber));
      for (std::size_t k = 0; k < asked.size(); ++k) answers[asked[k]].back().push_back(got[k]);
    }
  }
  return answers;
}

int RunCapture(const CaptureOptions& options) {
  const CaptureSettings settings = Settings(options);
  std::vector<CapturePort> ports = Resolved(options.ports, options.baud);
  {
    const std::vector<CapturePort*> working = Working(ports);
    Progress progress("opening " + Count(working.size(), "port"));
    NoteFailures(working, AtOnce(PathsOf(working), [&](const std::string& path) {
                   return ZeltoCom_Open(path.c_str(), options.baud);
                 }));
  }
  LearnFibers(Working(ports), settings);
  const std::string time = UtcNow();
  {
    const std::vector<CapturePort*> working = Working(ports);
    const Aftermath aftermath(
        [] { return std::string("The analysers may still finish the capture they began."); });
    Progress progress("capturing on " + Count(working.size(), "port"));
    NoteFailures(working, AtOnce(PathsOf(working), [&](const std::string& path) {
                   return ZeltoCom_Capture(path.c_str(), settings.pwm, settings.range, 0);
                 }));
  }
  const std::vector<CapturePort*> captured = Working(ports);
  const auto answers = ReadAtOnce(captured);

  int status = kSuccess;
  Json documents = Json::array();
  Table table(ReadingColumns({"port", "PORT"}));
  std::size_t next = 0;  // in `captured`
  for (const CapturePort& port : ports) {
    Json document = {{"path", port.path},
                     {"serial", port.ok() ? Json(SerialOf(port.path)) : Json()}};
    if (!port.ok()) {
      std::fprintf(stderr, "zeltocom capture: %s\n", port.error.c_str());
      document["error"] = port.error;
      status = kFailure;
    } else {
      document["time"] = time;
      document["fibers"] = FiberRows(answers[next++], port.fibers.first, table, "port", port.path,
                                     port.path, settings, status);
    }
    documents.push_back(document);
  }
  PrintResult({{"ports", documents}}, table);
  return status;
}

// The first fiber read of a chained instrument, and each fiber's answers.
std::pair<int, std::vector<std::vector<Answer>>> ReadChained(const std::string& path,
                                                             const std::string& serial,
                                                             const CaptureSettings& settings) {
  const int count = FiberCount(ChainSend(path, serial, "GETNFIB"), serial);
  const auto [first, last] = FibersToRead(settings, count, serial);
  std::vector<std::vector<Answer>> answers;
  for (int fiber = first; fiber <= last; ++fiber) {
    std::vector<Answer>& fiberAnswers = answers.emplace_back();
    for (const Reading& reading : Readings()) {
      fiberAnswers.push_back(ChainSend(path, serial, FiberCommand(reading.command, fiber)));
    }
  }
  return {first, answers};
}

int RunChain(const CaptureOptions& options) {
  const CaptureSettings settings = Settings(options);
  const std::string path = OpenPort(options.ports.front(), options.baud);
  std::vector<std::string> serials = {SerialOf(path)};
  for (const std::string& serial : options.serials) {
    // The port's own instrument (which the library accepts) is read once.
    if (std::find(serials.begin(), serials.end(), serial) != serials.end()) continue;
    if (ZeltoCom_DaisyChain_Add(path.c_str(), serial.c_str()) != 1) {
      Failure(serial + ": " + PortError(path));
    }
    serials.push_back(serial);
  }
  int captured = 0;
  const std::string time = UtcNow();
  {
    Progress progress("capturing on the chain of " + path);
    captured = ZeltoCom_DaisyChain_Capture(path.c_str(), settings.pwm, settings.range, 0);
  }
  if (captured != 1) Failure(path + ": " + PortError(path));

  int status = kSuccess;
  Json instruments = Json::array();
  Table table(ReadingColumns({"serial", "SERIAL"}));
  {
    Progress progress("reading the instruments");
    for (const std::string& serial : serials) {
      const auto [first, fibers] = ReadChained(path, serial, settings);
      // Its intensities are converted while it still holds the line.
      Json rows = FiberRows(fibers, first, table, "serial", serial, path, settings, status);
      instruments.push_back({{"serial", serial}, {"fibers", rows}});
    }
  }
  PrintResult({{"port", path}, {"time", time}, {"instruments", instruments}}, table);
  return status;
}

// The options capture and chain share.
void AddCaptureOptions(CLI::App& app, CaptureOptions& options) {
  AddRangeOption(app, options.range);
  AddPwmOption(app, options.pwm);
  app.add_option("-f,--fibers", options.fibers,
                 "read only fibers A to B (or one fiber A); default all")
      ->type_name("A-B");
  AddBaudOption(app, options.baud);
}

}  // namespace

Subcommand AddCapture(CLI::App& root) {
  auto options = std::make_shared<CaptureOptions>();
  CLI::App* app =
      root.add_subcommand("capture", "capture on several ports at once, print the readings");
  app->footer("Opens the LED analysers on the PORTs, captures on all of them at once and\n"
              "prints each fiber's readings: chromaticity x and y, intensity, dominant\n"
              "wavelength (nm), colour temperature (K) and the red, green and blue shares.");
  AddOperands(*app, "PORT", options->ports, "the analysers' ports")->required();
  AddCaptureOptions(*app, *options);
  return {app, [options] { return RunCapture(*options); }};
}

Subcommand AddChain(CLI::App& root) {
  auto options = std::make_shared<CaptureOptions>();
  options->ports.resize(1);
  CLI::App* app =
      root.add_subcommand("chain", "capture on a daisy chain, print every instrument's readings");
  app->footer("Opens the instrument on PORT, adds the instruments with the SERIAL numbers\n"
              "daisy-chained behind it, captures on the whole chain at once and prints every\n"
              "instrument's readings, the one on PORT first.");
  AddOperand(*app, "PORT", options->ports.front(), "the chain's port")->required();
  AddOperands(*app, "SERIAL", options->serials, "the chained instruments' serial numbers")
      ->required();
  AddCaptureOptions(*app, *options);
  return {app, [options] { return RunChain(*options); }};
}

}  // namespace cli
