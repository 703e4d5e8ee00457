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
  return {first,          {"fibre", "FIBRE"},      {"x", "X"},
          {"y", "Y"},     {"intensity", "INTENSITY"}, {"wavelength", "NM"},
          {"cct", "CCT"}, {"red", "R"},            {"green", "G"},
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

struct CaptureSettings {
  int pwm;
  int range;
  std::pair<long, long> fibres;  // {0, 0}: all of each instrument's
};

CaptureSettings Settings(const Args& args) {
  CaptureSettings settings{args.Has("--pwm") ? 1 : 0,
                           static_cast<int>(args.Whole("--range", 0, 0, 6)), {0, 0}};
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

  // Each reading is asked of all ports at once; answers[port][fibre][reading].
  std::vector<std::vector<std::vector<Answer>>> answers(paths.size());
  const int lastFibre = std::max_element(fibres.begin(), fibres.end(), [](auto a, auto b) {
                          return a.second < b.second;
                        })->second;
  for (int fibre = 1; fibre <= lastFibre; ++fibre) {
    std::vector<std::string> asked;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      const bool wanted = fibre >= fibres[i].first && fibre <= fibres[i].second;
      if (results[i] == 1 && wanted) asked.push_back(paths[i]);
    }
    if (asked.empty()) continue;
    std::vector<std::vector<Answer>> perPort(asked.size());
    for (const Reading& reading : Readings()) {
      const std::vector<Answer> got = SendToEach(asked, FibreCommand(reading.command, fibre));
      for (std::size_t k = 0; k < asked.size(); ++k) perPort[k].push_back(got[k]);
    }
    for (std::size_t k = 0; k < asked.size(); ++k) {
      const auto port = std::find(paths.begin(), paths.end(), asked[k]) - paths.begin();
      answers[static_cast<std::size_t>(port)].push_back(perPort[k]);
    }
  }

  int status = kSuccess;
  Json ports = Json::MakeArray();
  Table table(ReadingColumns({"port", "PORT"}));
  for (std::size_t i = 0; i < paths.size(); ++i) {
    Json port = Json::MakeObject().Set("path", paths[i]).Set("serial", SerialOf(paths[i]));
    Json readings = Json::MakeArray();
    if (results[i] != 1) {
      const std::string error = PortError(paths[i]);
      port.Set("error", error);
      std::fprintf(stderr, "zeltocom capture: %s: %s\n", paths[i].c_str(), error.c_str());
      status = kFailure;
    }
    for (std::size_t f = 0; f < answers[i].size(); ++f) {
      Json row = FibreReadings(fibres[i].first + static_cast<int>(f), answers[i][f]);
      if (!row.Get("error").IsNull()) status = kFailure;
      readings.Push(row);
      table.Add(row.Set("port", paths[i]));
    }
    ports.Push(port.Set("fibres", readings));
  }
  if (args.json()) {
    PrintJson(Json::MakeObject().Set("ports", ports));
  } else {
    table.Print();
  }
  return status;
}

int RunChain(const Args& args) {
  const CaptureSettings settings = Settings(args);
  const std::string& path = args.operands().front();
  OpenPort(path, args.Baud());
  std::vector<std::string> serials = {SerialOf(path)};
  for (std::size_t i = 1; i < args.operands().size(); ++i) {
    const std::string& serial = args.operands()[i];
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

  int status = kSuccess;
  Json instruments = Json::MakeArray();
  Table table(ReadingColumns({"serial", "SERIAL"}));
  for (const std::string& serial : serials) {
    const int count = FibreCount(ChainSend(path, serial, "GETNFIB"), serial);
    const auto [first, last] = FibresToRead(settings, count, serial);
    Json readings = Json::MakeArray();
    for (int fibre = first; fibre <= last; ++fibre) {
      std::vector<Answer> answers;
      for (const Reading& reading : Readings()) {
        answers.push_back(ChainSend(path, serial, FibreCommand(reading.command, fibre)));
      }
      Json row = FibreReadings(fibre, answers);
      if (!row.Get("error").IsNull()) status = kFailure;
      readings.Push(row);
      table.Add(row.Set("serial", serial));
    }
    instruments.Push(Json::MakeObject().Set("serial", serial).Set("fibres", readings));
  }
  if (args.json()) {
    PrintJson(Json::MakeObject().Set("port", path).Set("instruments", instruments));
  } else {
    table.Print();
  }
  return status;
}

Option FibersOption() {
  return {"--fibers", "A-B", "read only fibres A to B (or one fibre A); default all"};
}

}  // namespace

Command CaptureCommand() {
  return {"capture", "PORT...", 1, -1, "capture on several ports at once, print the readings",
          "Opens the LED analysers on the PORTs, captures on all of them at once and\n"
          "prints each fibre's readings: chromaticity x and y, intensity, dominant\n"
          "wavelength (nm), colour temperature (K) and the red, green and blue shares.",
          {RangeOption(), PwmOption(), FibersOption(), BaudOption()}, RunCapture};
}

Command ChainCommand() {
  return {"chain", "PORT SERIAL...", 2, -1, "capture on a daisy chain, print every instrument's readings",
          "Opens the instrument on PORT, adds the instruments with the SERIAL numbers\n"
          "daisy-chained behind it, captures on the whole chain at once and prints every\n"
          "instrument's readings, the one on PORT first.",
          {RangeOption(), PwmOption(), FibersOption(), BaudOption()}, RunChain};
}

}  // namespace cli
