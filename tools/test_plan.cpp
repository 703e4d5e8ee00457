// zeltocom test: a test plan run on a station's instruments, the unit judged
// against the plan's limits and the result written where the command line
// asks.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "commands.hpp"
#include "interrupt.hpp"
#include "library.hpp"
#include "output.hpp"
#include "plan.hpp"
#include "plan_report.hpp"
#include "plan_sinks.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// An instrument could not be used, or a result not written.
constexpr int kUnusable = 3;

struct TestOptions {
  std::string plan;
  std::string unit;
  std::string csv;
  std::string junit;
  std::string db;
  std::string mqtt;
  std::string station;
};

// What one fiber answered.
struct Reading {
  double x = 0;
  double y = 0;
  int raw = 0;
  double wavelength = 0;
};

// One [[instrument]] of the plan as the run finds it.
struct Instrument {
  const PlanInstrument* planned = nullptr;
  std::size_t index = 0;  // in the plan
  std::string path;
  std::string serial;
  std::string model;
  std::string firmware;
  std::string error;
  std::vector<int> fibers;  // in the plan's order
  bool logarithmic = true;
  std::map<int, Reading> readings;
  Json judged = Json::array();  // the fibers' entries of the result
  bool ok() const { return error.empty(); }
};

void Fail(Instrument& instrument, const std::string& what, const std::string& why) {
  if (instrument.ok()) instrument.error = instrument.path + ": " + what + ": " + why;
}

void NoteFailures(const std::vector<Instrument*>& instruments, const std::vector<Answer>& outcomes,
                  const std::string& what) {
  for (std::size_t i = 0; i < instruments.size(); ++i) {
    if (!outcomes[i].ok()) Fail(*instruments[i], what, outcomes[i].error);
  }
}

// `call` on every instrument at once, each in a thread of its own; a result
// other than 1 fails the instrument.
void OnEach(const std::vector<Instrument*>& instruments, const std::string& what,
            const std::function<int(Instrument&)>& call) {
  const std::vector<std::string> paths = PathsOf(instruments);
  NoteFailures(instruments,
               AtOnce(paths,
                      [&](const std::string& path) {
                        const auto at = std::find(paths.begin(), paths.end(), path) - paths.begin();
                        return call(*instruments[static_cast<std::size_t>(at)]);
                      }),
               what);
}

void OpenByPath(const std::vector<Instrument*>& instruments, int baud) {
  std::vector<Instrument*> resolved;
  for (Instrument* instrument : instruments) {
    try {
      instrument->path = ResolvePort(instrument->planned->path, baud);
      resolved.push_back(instrument);
    } catch (const Stop& stop) {
      instrument->error = stop.text;
    }
  }
  OnEach(resolved, "opening",
         [baud](Instrument& instrument) { return ZeltoCom_Open(instrument.path.c_str(), baud); });
}

std::string ErrorOfSerial(const std::string& serial) {
  char text[ZELTOCOM_ERROR_TEXT_SIZE] = "";
  const std::string own = ZeltoCom_GetError_DescriptionBySN(serial.c_str(), text);
  return own.empty() ? LastError() : own;
}

// When one of them fails, the library closes again the others it opened:
// they are then opened anew, without it.
void OpenBySerial(std::vector<Instrument*> instruments, int baud) {
  while (!instruments.empty()) {
    std::vector<const char*> serials;
    for (const Instrument* instrument : instruments) {
      serials.push_back(instrument->planned->serial.c_str());
    }
    std::vector<int> results(serials.size(), 0);
    const int opened = ZeltoCom_OpenSN_Multi(results.data(), serials.data(),
                                             static_cast<int>(serials.size()), baud);
    std::vector<Instrument*> again;
    for (std::size_t i = 0; i < instruments.size(); ++i) {
      Instrument& instrument = *instruments[i];
      if (opened == 1) {
        std::vector<char> path(ZELTOCOM_DEVICE_PATH_SIZE, '\0');
        ZeltoCom_GetPortBySN(path.data(), serials[i]);
        instrument.path = path.data();
      } else if (results[i] == 1) {
        again.push_back(&instrument);
      } else {
        instrument.error = instrument.planned->serial + ": " + ErrorOfSerial(serials[i]);
      }
    }
    if (again.size() == instruments.size()) {
      // Refused as a whole: no slot tells why.
      for (Instrument* instrument : again) instrument->error = LastError();
      return;
    }
    instruments = again;
  }
}

void Open(std::vector<Instrument>& instruments, int baud) {
  Progress progress("opening " + Count(instruments.size(), "instrument"));
  std::vector<Instrument*> byPath;
  std::vector<Instrument*> bySerial;
  for (Instrument& instrument : instruments) {
    (instrument.planned->serial.empty() ? byPath : bySerial).push_back(&instrument);
  }
  // The search by serial number passes over the ports already open.
  OpenByPath(byPath, baud);
  OpenBySerial(bySerial, baud);
}

// Each instrument's answer, its first line; a failed answer fails the
// instrument.
std::vector<std::string> AskEach(const std::vector<Instrument*>& instruments,
                                 const std::string& command) {
  const std::vector<Answer> answers = SendToEach(PathsOf(instruments), command);
  NoteFailures(instruments, answers, command);
  std::vector<std::string> lines;
  for (const Answer& answer : answers) {
    const std::vector<std::string> text = Lines(answer.text);
    lines.push_back(text.empty() ? "" : text.front());
  }
  return lines;
}

// The scale each instrument reports intensities in.
void LearnScales(const std::vector<Instrument*>& instruments) {
  OnEach(instruments, "intensity scale", [](Instrument& instrument) {
    int logarithmic = 1;
    const int result = ZeltoCom_GetIntensityScale(instrument.path.c_str(), &logarithmic);
    instrument.logarithmic = logarithmic != 0;
    return result;
  });
}

// Serial number, model, firmware and the fibers to read.
void Identify(const std::vector<Instrument*>& instruments) {
  const std::vector<std::string> models = AskEach(instruments, "GETHW");
  const std::vector<std::string> firmware = AskEach(instruments, "GETVERSION");
  const std::vector<std::string> counts = AskEach(instruments, "GETNFIB");
  for (std::size_t i = 0; i < instruments.size(); ++i) {
    Instrument& instrument = *instruments[i];
    instrument.serial = SerialOf(instrument.path);
    instrument.model = models[i];
    instrument.firmware = firmware[i];
    const int count = std::atoi(counts[i].c_str());
    instrument.fibers = instrument.planned->fibers;
    if (instrument.fibers.empty()) {
      for (int fiber = 1; fiber <= count; ++fiber) instrument.fibers.push_back(fiber);
    }
    if (instrument.fibers.empty()) {
      Fail(instrument, "GETNFIB", "no fiber to read");
    } else if (const int last =
                   *std::max_element(instrument.fibers.begin(), instrument.fibers.end());
               last > count) {
      Fail(instrument, "GETNFIB",
           "the plan reads fiber " + std::to_string(last) + ", the instrument has " +
               Count(static_cast<std::size_t>(std::max(count, 0)), "fiber"));
    }
  }
}

void Capture(const std::vector<Instrument*>& instruments) {
  Progress progress("capturing on " + Count(instruments.size(), "instrument"));
  OnEach(instruments, "capture", [](Instrument& instrument) {
    const PlanInstrument& planned = *instrument.planned;
    return ZeltoCom_Capture(instrument.path.c_str(), planned.pwm ? 1 : 0, planned.captureRange, 0);
  });
}

// The first `count` numbers of an answer; none when it holds fewer.
std::vector<double> Numbers(const std::string& text, std::size_t count) {
  std::istringstream words(text);
  std::vector<double> numbers;
  for (std::string word; numbers.size() < count && words >> word;) {
    char* end = nullptr;
    const double value = std::strtod(word.c_str(), &end);
    if (*end != '\0' || !std::isfinite(value)) return {};
    numbers.push_back(value);
  }
  return numbers.size() == count ? numbers : std::vector<double>();
}

// Every fiber of every instrument, each reading asked of all instruments
// at once.
void ReadFibers(const std::vector<Instrument*>& instruments) {
  Progress progress("reading the fibers");
  int lastFiber = 0;
  for (const Instrument* instrument : instruments) {
    for (const int fiber : instrument->fibers) lastFiber = std::max(lastFiber, fiber);
  }
  for (int fiber = 1; fiber <= lastFiber; ++fiber) {
    std::vector<Instrument*> asked;
    for (Instrument* instrument : instruments) {
      const std::vector<int>& fibers = instrument->fibers;
      if (instrument->ok() && std::find(fibers.begin(), fibers.end(), fiber) != fibers.end()) {
        asked.push_back(instrument);
      }
    }
    if (asked.empty()) continue;
    const std::string xyI = FiberCommand("GETxyI", fiber);
    const std::string nm = FiberCommand("GETWAVELENGTH", fiber);
    const std::vector<std::string> colours = AskEach(asked, xyI);
    const std::vector<std::string> wavelengths = AskEach(asked, nm);
    for (std::size_t i = 0; i < asked.size(); ++i) {
      const std::vector<double> colour = Numbers(colours[i], 3);
      const std::vector<double> wavelength = Numbers(wavelengths[i], 1);
      if (colour.empty()) Fail(*asked[i], xyI, "unreadable answer '" + colours[i] + "'");
      if (wavelength.empty()) Fail(*asked[i], nm, "unreadable answer '" + wavelengths[i] + "'");
      if (!asked[i]->ok()) continue;
      asked[i]->readings[fiber] = {colour[0], colour[1], static_cast<int>(colour[2]),
                                   wavelength[0]};
    }
  }
}

// 1200, not 1200.0, for a whole number.
Json Value(double value) {
  const bool whole = value == std::trunc(value) && std::abs(value) < 1e15;
  return whole ? Json(static_cast<long long>(value)) : Json(value);
}

void Check(Json& failed, const char* limit, const std::optional<Window>& window, double value) {
  if (window && !window->Holds(value)) {
    failed.push_back({{"limit", limit},
                      {"value", Value(value)},
                      {"window", {Value(window->low), Value(window->high)}}});
  }
}

// The first bin of the plan's file that holds the point, exactly.
Json BinOf(const std::string& file, double x, double y) {
  if (file.empty()) return nullptr;
  std::vector<char> name(4096, '\0');
  const int found =
      ZeltoCom_Binning_FindBin(file.c_str(), name.data(), static_cast<int>(name.size()),
                               static_cast<float>(x), static_cast<float>(y));
  return found == 1 ? Json(std::string(name.data())) : Json();
}

Json JudgeFiber(const Plan& plan, Instrument& instrument, int fiber) {
  const Reading& reading = instrument.readings.at(fiber);
  const PlanInstrument& planned = *instrument.planned;
  int linear = reading.raw;
  const int converted = ZeltoCom_IntensityToLinear(
      instrument.path.c_str(), reading.raw, planned.pwm ? 1 : 0, planned.captureRange, &linear);
  if (converted != 1) Fail(instrument, "intensity to linear", PortError(instrument.path));
  const Limits limits = plan.LimitsOf(instrument.index, fiber);
  Json failed = Json::array();
  Check(failed, "x", limits.x, reading.x);
  Check(failed, "y", limits.y, reading.y);
  Check(failed, "intensity", limits.intensity, linear);
  Check(failed, "wavelength", limits.wavelength, reading.wavelength);
  const Json bin = BinOf(plan.bins, reading.x, reading.y);
  if (limits.accept) {
    const std::vector<std::string>& accept = *limits.accept;
    if (bin.is_null() ||
        std::find(accept.begin(), accept.end(), bin.get<std::string>()) == accept.end()) {
      failed.push_back({{"limit", "bin"}, {"value", bin}, {"window", accept}});
    }
  }
  return {{"fiber", fiber},
          {"x", Value(reading.x)},
          {"y", Value(reading.y)},
          {"intensity",
           {{"linear", linear},
            {"raw", reading.raw},
            {"scale", instrument.logarithmic ? "logarithmic" : "linear"}}},
          {"wavelength", Value(reading.wavelength)},
          {"bin", bin},
          {"pass", failed.empty()},
          {"failed", failed}};
}

void Judge(const Plan& plan, const std::vector<Instrument*>& instruments) {
  for (Instrument* instrument : instruments) {
    for (const int fiber : instrument->fibers) {
      instrument->judged.push_back(JudgeFiber(plan, *instrument, fiber));
    }
  }
}

// A [[sequence]] check: the settings finder chooses a sequence for the
// window's frequencies, which then measures the light.
Json RunSequence(const SequenceCheck& check, Instrument& instrument) {
  const char* path = instrument.path.c_str();
  unsigned captureTime = 0;
  unsigned pause = 0;
  int samples = 0;
  float hz = 0;
  float dutyPercent = 0;
  int cycles = 0;
  const int found = ZeltoCom_Sequence_FindTestSettings(
      path, check.fiber, static_cast<float>(check.frequency->low),
      static_cast<float>(check.frequency->high), &captureTime, &pause, &samples);
  bool measured = false;
  if (found == 1) {
    std::vector<int> intensities(static_cast<std::size_t>(samples), 0);
    const bool read = ZeltoCom_Sequence_Setup(path, 0, captureTime, pause, samples, 0) == 1 &&
                      ZeltoCom_Sequence_Capture(path, check.fiber) == 1 &&
                      ZeltoCom_Sequence_ReadIntensity(path, check.fiber, intensities.data()) == 1;
    if (!read) Fail(instrument, "sequence", PortError(instrument.path));
    measured =
        read &&
        ZeltoCom_Sequence_GetFrequency(path, intensities.data(), &hz, &dutyPercent, &cycles) == 1 &&
        std::isfinite(hz) && std::isfinite(dutyPercent);
  } else if (found == -1) {
    Fail(instrument, "sequence settings", PortError(instrument.path));
  }
  // A light that does not blink in the window has no frequency to judge.
  const Json frequency = measured ? Number(hz) : Json();
  const Json duty = measured ? Number(dutyPercent / 100) : Json();
  Json failed = Json::array();
  if (measured) {
    Check(failed, "frequency", check.frequency, frequency.get<double>());
    Check(failed, "duty_cycle", check.dutyCycle, duty.get<double>());
  } else {
    failed.push_back({{"limit", "frequency"},
                      {"value", nullptr},
                      {"window", {Value(check.frequency->low), Value(check.frequency->high)}}});
  }
  return {{"instrument", instrument.planned->Name()},
          {"fiber", check.fiber},
          {"frequency", frequency},
          {"duty_cycle", duty},
          {"pass", failed.empty()},
          {"failed", failed}};
}

std::string HostName() {
  char name[256] = "";
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

Json InstrumentDocument(const Instrument& instrument) {
  const auto textOrNull = [](const std::string& text) {
    return text.empty() ? Json() : Json(text);
  };
  // As the plan names it when the instrument could not tell.
  const PlanInstrument& planned = *instrument.planned;
  return {{"serial", textOrNull(instrument.serial.empty() ? planned.serial : instrument.serial)},
          {"path", textOrNull(instrument.path.empty() ? planned.path : instrument.path)},
          {"model", textOrNull(instrument.model)},
          {"firmware", textOrNull(instrument.firmware)},
          {"error", textOrNull(instrument.error)},
          {"fibers", instrument.ok() ? instrument.judged : Json::array()}};
}

// Runs the plan; the result document, and whether every instrument was used.
Json RunPlan(const Plan& plan, const TestOptions& options, bool& allUsed) {
  Json result = {{"format", 1},
                 {"plan", plan.name},
                 {"unit", options.unit.empty() ? Json() : Json(options.unit)},
                 {"station", !options.station.empty() ? options.station
                             : !plan.station.empty()  ? plan.station
                                                      : HostName()},
                 {"start", UtcNow()}};
  std::vector<Instrument> instruments;
  for (std::size_t i = 0; i < plan.instruments.size(); ++i) {
    Instrument& instrument = instruments.emplace_back();
    instrument.planned = &plan.instruments[i];
    instrument.index = i;
  }
  Open(instruments, plan.baud);
  Identify(Working(instruments));
  LearnScales(Working(instruments));
  Capture(Working(instruments));
  ReadFibers(Working(instruments));
  Judge(plan, Working(instruments));
  Json sequences = Json::array();
  for (const SequenceCheck& check : plan.sequences) {
    Instrument& instrument = instruments[check.instrument];
    if (!instrument.ok()) continue;
    Progress progress("sequence on fiber " + std::to_string(check.fiber) + " of " +
                      instrument.planned->Name());
    sequences.push_back(RunSequence(check, instrument));
  }
  result["end"] = UtcNow();

  bool pass = true;
  allUsed = true;
  Json documents = Json::array();
  for (const Instrument& instrument : instruments) {
    documents.push_back(InstrumentDocument(instrument));
    allUsed = allUsed && instrument.ok();
    for (const Json& fiber : documents.back()["fibers"]) pass = pass && fiber["pass"].get<bool>();
  }
  for (const Json& sequence : sequences) pass = pass && sequence["pass"].get<bool>();
  result["pass"] = pass && allUsed;
  result["instruments"] = documents;
  if (!plan.sequences.empty()) result["sequences"] = sequences;
  return result;
}

// Every output is tried, whatever an earlier one did; true when all were
// written.
bool WriteOutputs(const Json& result, const TestOptions& options) {
  PrintReport(result);
  bool written = true;
  const auto attempt = [&written](const std::string& what, bool done, const std::string& error) {
    if (done) return;
    std::fprintf(stderr, "zeltocom test: %s: %s\n", what.c_str(), error.c_str());
    written = false;
  };
  std::string error;
  if (!options.csv.empty())
    attempt("--csv " + options.csv, WriteCsv(result, options.csv, &error), error);
  if (!options.junit.empty()) {
    attempt("--junit " + options.junit, WriteJUnit(result, options.junit, &error), error);
  }
  if (!options.db.empty())
    attempt("--db " + options.db, StoreResult(result, options.db, &error), error);
  if (!options.mqtt.empty()) {
    attempt("--mqtt " + options.mqtt, PublishResult(result, options.mqtt, &error), error);
  }
  return written;
}

int RunTest(const TestOptions& options) {
  const Plan plan = ReadPlan(options.plan);
  bool allUsed = false;
  const Json result = RunPlan(plan, options, allUsed);
  // Ctrl-C closed the ports: what was read since is no result to keep.
  if (Interrupted()) return kInterrupted;
  const bool written = WriteOutputs(result, options);
  if (!allUsed || !written) return kUnusable;
  return result["pass"].get<bool>() ? kSuccess : kFailure;
}

}  // namespace

Subcommand AddTest(CLI::App& root) {
  auto options = std::make_shared<TestOptions>();
  CLI::App* app = root.add_subcommand("test", "run a test plan: capture, judge, keep the result");
  app->footer("Opens the instruments of the test plan PLAN (TOML), captures on all of them at\n"
              "once, converts each fiber's intensity to linear, sorts it into a bin, checks\n"
              "every limit and prints PASS or FAIL per fiber and for the unit. The result\n"
              "goes to stdout (--json: the result document), then to the files asked for,\n"
              "then to the database, then to the MQTT broker.\n"
              "Exit status: 0 the unit passes, 1 it fails, 2 a bad plan or command line,\n"
              "3 an instrument could not be used or a result could not be written.\n"
              "The format: docs/test-plans.md.");
  AddOperand(*app, "PLAN", options->plan, "the test plan (.toml)")->required();
  app->add_option("-u,--unit", options->unit, "the unit under test's identifier")->type_name("ID");
  app->add_option("--csv", options->csv, "write one row per fiber to FILE")->type_name("FILE");
  app->add_option("--junit", options->junit, "write JUnit XML to FILE")->type_name("FILE");
  app->add_option("--db", options->db, "append the run to the SQLite database FILE")
      ->envname("ZELTOCOM_DB")
      ->type_name("FILE");
  app->add_option("--mqtt", options->mqtt,
                  "publish the result to the MQTT broker at URL (mqtt://HOST[:PORT])")
      ->type_name("URL");
  app->add_option("--station", options->station,
                  "the station's name (default: the plan's station, else the host name)")
      ->type_name("NAME");
  return {app, [options] { return RunTest(*options); }};
}

}  // namespace cli
