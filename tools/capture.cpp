// zeltocom capture, zeltocom chain: LED captures and every fibre's readings.
#include <algorithm>
#include <set>
#include <sstream>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// What is read of each fibre, and the names of the numbers each answer holds.
struct Reading {
  std::string command;
  std::vector<std::string> fields;
};

const std::vector<Reading>& Readings() {
  static const std::vector<Reading> readings = {
      {"GETxyI", {"x", "y", "intensity"}},
      {"GETWAVELENGTH", {"wavelength"}},
      {"GETCCT", {"cct"}},
      {"GETRGBI", {"red", "green", "blue"}},
  };
  return readings;
}

std::vector<Column> ReadingColumns(Column first) {
  return {first,
          {"fibre", "FIBRE"},
          {"x", "X"},
          {"y", "Y"},
          {"intensity", "INTENSITY"},
          {"wavelength", "NM"},
          {"cct", "CCT"},
          {"red", "R"},
          {"green", "G"},
          {"blue", "B"}};
}

// One fibre's readings from the answers to Readings(), in their order.
Json FibreReadings(int fibre, const std::vector<Answer>& answers) {
  Json row = Json::MakeObject().Set("fibre", fibre);
  std::string errors;
  for (std::size_t r = 0; r < Readings().size(); ++r) {
    const Answer& answer = answers[r];
    std::istringstream words(answer.text);
    for (const std::string& field : Readings()[r].fields) {
      std::string word;
      row.Set(field, answer.ok() && words >> word ? NumberOrText(word) : Json());
    }
    if (!answer.ok() && errors.empty()) errors = answer.error;
  }
  if (!errors.empty()) row.Set("error", errors);
  return row;
}

// The rows of one instrument's fibres, from `first` on; each goes into the
// table too, under `key` = `name`. A failed reading makes `status` a failure.
Json FibreRows(const std::vector<std::vector<Answer>>& answers, int first, Table& table,
               const std::string& key, const std::string& name, int& status) {
  Json rows = Json::MakeArray();
  for (std::size_t f = 0; f < answers.size(); ++f) {
    Json row = FibreReadings(first + static_cast<int>(f), answers[f]);
    if (!row.Get("error").IsNull()) status = kFailure;
    rows.Push(row);
    table.Add(row.Set(key, name));
  }
  return rows;
}

struct CaptureSettings {
  int pwm;
  int range;
  std::pair<long, long> fibres;  // {0, 0}: all of each instrument's
};

CaptureSettings Settings(const Args& args) {
  CaptureSettings settings{
      args.Has("--pwm") ? 1 : 0, static_cast<int>(args.Whole("--range", 0, 0, 6)), {0, 0}};
  if (args.Has("--fibers")) settings.fibres = ParseSpan(args.Value("--fibers"), "--fibers", 1, 99);
  return settings;
}

int FibreCount(const Answer& answer, const std::string& where) {
  return static_cast<int>(std::strtol(Expect(answer, where + ": GETNFIB").c_str(), nullptr, 10));
}

// The fibres to read of an instrument with `count` of them.
std::pair<int, int> FibresToRead(const CaptureSettings& settings, int count,
                                 const std::string& where) {
  if (settings.fibres.first == 0) return {1, count};
  if (settings.fibres.second > count) {
    UsageError("--fibers: " + where + " has " + std::to_string(count) + " fibres");
  }
  return {static_cast<int>(settings.fibres.first), static_cast<int>(settings.fibres.second)};
}

// Each reading of each fibre is asked of all ports that captured at once:
// answers[port][fibre - first fibre][reading].
std::vector<std::vector<std::vector<Answer>>> ReadAtOnce(
    const std::vector<std::string>& paths, const std::vector<std::pair<int, int>>& fibres,
    const std::vector<int>& captured) {
  Progress progress("reading the fibres");
  std::vector<std::vector<std::vector<Answer>>> answers(paths.size());
  int lastFibre = 0;
  for (const auto& span : fibres) lastFibre = std::max(lastFibre, span.second);
  for (int fibre = 1; fibre <= lastFibre; ++fibre) {
    std::vector<std::size_t> asked;
    std::vector<std::string> askedPaths;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      if (captured[i] == 1 && fibre >= fibres[i].first && fibre <= fibres[i].second) {
        asked.push_back(i);
        askedPaths.push_back(paths[i]);
      }
    }
    if (asked.empty()) continue;
    for (const std::size_t i : asked) answers[i].emplace_back();
    for (const Reading& reading : Readings()) {
      const std::vector<Answer> got = SendToEach(askedPaths, FibreCommand(reading.command, fibre));
      for (std::size_t k = 0; k < asked.size(); ++k) answers[asked[k]].back().push_back(got[k]);
    }
  }
  return answers;
}

int RunCapture(const Args& args) {
  const CaptureSettings settings = Settings(args);
  const std::vector<std::string>& paths = args.operands();
  if (std::set<std::string>(paths.begin(), paths.end()).size() != paths.size()) {
    UsageError("a port is named twice");
  }
  OpenPorts(paths, args.Baud());
  const std::vector<Answer> counts = SendToEach(paths, "GETNFIB");
  std::vector<std::pair<int, int>> fibres;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    fibres.push_back(FibresToRead(settings, FibreCount(counts[i], paths[i]), paths[i]));
  }

  // The open ports are exactly ours, in our order.
  std::vector<int> results(paths.size(), 0);
  {
    Progress progress("capturing on " + std::to_string(paths.size()) + " ports");
    ZeltoCom_CaptureFromAll(results.data(), settings.pwm, settings.range, 0);
  }

  const auto answers = ReadAtOnce(paths, fibres, results);

  int status = kSuccess;
  Json ports = Json::MakeArray();
  Table table(ReadingColumns({"port", "PORT"}));
  for (std::size_t i = 0; i < paths.size(); ++i) {
    Json port = Json::MakeObject().Set("path", paths[i]).Set("serial", SerialOf(paths[i]));
    if (results[i] != 1) {
      const std::string error = PortError(paths[i]);
      port.Set("error", error);
      std::fprintf(stderr, "zeltocom capture: %s: %s\n", paths[i].c_str(), error.c_str());
      status = kFailure;
    }
    port.Set("fibres", FibreRows(answers[i], fibres[i].first, table, "port", paths[i], status));
    ports.Push(port);
  }
  PrintResult(args.json(), Json::MakeObject().Set("ports", ports), table);
  return status;
}

// The first fibre read of a chained instrument, and each fibre's answers.
std::pair<int, std::vector<std::vector<Answer>>> ReadChained(const std::string& path,
                                                             const std::string& serial,
                                                             const CaptureSettings& settings) {
  const int count = FibreCount(ChainSend(path, serial, "GETNFIB"), serial);
  const auto [first, last] = FibresToRead(settings, count, serial);
  std::vector<std::vector<Answer>> answers;
  for (int fibre = first; fibre <= last; ++fibre) {
    std::vector<Answer>& fibreAnswers = answers.emplace_back();
    for (const Reading& reading : Readings()) {
      fibreAnswers.push_back(ChainSend(path, serial, FibreCommand(reading.command, fibre)));
    }
  }
  return {first, answers};
}

int RunChain(const Args& args) {
  const CaptureSettings settings = Settings(args);
  const std::string& path = args.operands().front();
  OpenPort(path, args.Baud());
  std::vector<std::string> serials = {SerialOf(path)};
  for (std::size_t i = 1; i < args.operands().size(); ++i) {
    const std::string& serial = args.operands()[i];
    // The port's own instrument (which the library accepts) is read once.
    if (std::find(serials.begin(), serials.end(), serial) != serials.end()) continue;
    if (ZeltoCom_DaisyChain_Add(path.c_str(), serial.c_str()) != 1) {
      Failure(serial + ": " + PortError(path));
    }
    serials.push_back(serial);
  }
  int captured = 0;
  {
    Progress progress("capturing on the chain of " + path);
    captured = ZeltoCom_DaisyChain_Capture(path.c_str(), settings.pwm, settings.range, 0);
  }
  if (captured != 1) Failure(path + ": " + PortError(path));

  std::vector<std::pair<int, std::vector<std::vector<Answer>>>> answers;
  {
    Progress progress("reading the instruments");
    for (const std::string& serial : serials) {
      answers.push_back(ReadChained(path, serial, settings));
    }
  }
  int status = kSuccess;
  Json instruments = Json::MakeArray();
  Table table(ReadingColumns({"serial", "SERIAL"}));
  for (std::size_t i = 0; i < serials.size(); ++i) {
    const auto& [first, fibres] = answers[i];
    Json rows = FibreRows(fibres, first, table, "serial", serials[i], status);
    instruments.Push(Json::MakeObject().Set("serial", serials[i]).Set("fibres", rows));
  }
  PrintResult(args.json(), Json::MakeObject().Set("port", path).Set("instruments", instruments),
              table);
  return status;
}

Option FibersOption() {
  return {"--fibers", "A-B", "read only fibres A to B (or one fibre A); default all"};
}

}  // namespace

Command CaptureCommand() {
  return {"capture",
          "PORT...",
          1,
          -1,
          "capture on several ports at once, print the readings",
          "Opens the LED analysers on the PORTs, captures on all of them at once and\n"
          "prints each fibre's readings: chromaticity x and y, intensity, dominant\n"
          "wavelength (nm), colour temperature (K) and the red, green and blue shares.",
          {RangeOption(), PwmOption(), FibersOption(), BaudOption()},
          RunCapture};
}

Command ChainCommand() {
  return {"chain",
          "PORT SERIAL...",
          2,
          -1,
          "capture on a daisy chain, print every instrument's readings",
          "Opens the instrument on PORT, adds the instruments with the SERIAL numbers\n"
          "daisy-chained behind it, captures on the whole chain at once and prints every\n"
          "instrument's readings, the one on PORT first.",
          {RangeOption(), PwmOption(), FibersOption(), BaudOption()},
          RunChain};
}

}  // namespace cli
