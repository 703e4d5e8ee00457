// zeltocom calibrate: a fiber's user calibration values read, written, reset
// or adjusted against a reference.
#include <cmath>
#include <functional>
#include <memory>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

using Values = std::vector<double>;

// One kind of calibration value and the library's calls for it.
struct Quantity {
  std::string name;
  std::vector<std::string> values;   // the names of its numbers
  bool whole;                        // whole numbers only
  std::pair<double, double> limits;  // of what set takes
  std::function<int(const char*, int, Values&)> get;
  std::function<int(const char*, int, const Values&, int)> set;
  int (*reset)(const char*, int);
  std::function<int(const char*, int, const Values&)> adjust;  // to references
};

const std::vector<Quantity>& Quantities() {
  static const std::vector<Quantity> quantities = {
      {"xy",
       {"x", "y"},
       false,
       {-1, 1},
       [](const char* p, int f, Values& v) {
         float x = 0, y = 0;
         const int result = ZeltoCom_UserCal_GetxyOffsets(p, f, &x, &y);
         v = {Number(x).get<double>(), Number(y).get<double>()};
         return result;
       },
       [](const char* p, int f, const Values& v, int mode) {
         return ZeltoCom_UserCal_SetxyOffsets(p, f, static_cast<float>(v[0]),
                                              static_cast<float>(v[1]), mode);
       },
       ZeltoCom_UserCal_ResetxyOffsets,
       [](const char* p, int f, const Values& v) {
         return ZeltoCom_UserCal_AdjustxyOffsets(p, f, static_cast<float>(v[0]),
                                                 static_cast<float>(v[1]));
       }},
      {"wavelength",
       {"nm"},
       true,
       {-999, 999},
       [](const char* p, int f, Values& v) {
         int nm = 0;
         const int result = ZeltoCom_UserCal_GetWavelengthOffset(p, f, &nm);
         v = {static_cast<double>(nm)};
         return result;
       },
       [](const char* p, int f, const Values& v, int mode) {
         return ZeltoCom_UserCal_SetWavelengthOffset(p, f, static_cast<int>(v[0]), mode);
       },
       ZeltoCom_UserCal_ResetWavelengthOffset,
       [](const char* p, int f, const Values& v) {
         return ZeltoCom_UserCal_AdjustWavelengthOffset(p, f, static_cast<int>(v[0]));
       }},
      {"gain",
       {"percent"},
       true,
       {50, 150},
       [](const char* p, int f, Values& v) {
         int gain = 0;
         const int result = ZeltoCom_UserCal_GetIntensityGain(p, f, &gain);
         v = {static_cast<double>(gain)};
         return result;
       },
       [](const char* p, int f, const Values& v, int mode) {
         return ZeltoCom_UserCal_SetIntensityGain(p, f, static_cast<int>(v[0]), mode);
       },
       ZeltoCom_UserCal_ResetIntensityGain,
       [](const char* p, int f, const Values& v) {
         return ZeltoCom_UserCal_AdjustIntensityGain(p, f, static_cast<int>(v[0]));
       }},
      {"factor",
       {"factor"},
       false,
       {1e-99, 1e99},
       [](const char* p, int f, Values& v) {
         double factor = 0;
         const int result = ZeltoCom_UserCal_GetAbsIntFactor(p, f, &factor);
         v = {factor};
         return result;
       },
       [](const char* p, int f, const Values& v, int mode) {
         return ZeltoCom_UserCal_SetAbsIntFactor(p, f, v[0], mode);
       },
       ZeltoCom_UserCal_ResetAbsIntFactor,
       [](const char* p, int f, const Values& v) {
         return ZeltoCom_UserCal_AdjustAbsIntFactor(p, f, v[0]);
       }},
  };
  return quantities;
}

struct CalibrateOptions {
  std::string port;
  std::string quantity;
  std::string action;
  std::vector<std::string> words;  // the action's numbers
  int fiber = 0;
  bool temporary = false;
  int baud = 0;
};

const Quantity* Find(const std::string& name) {
  for (const Quantity& quantity : Quantities()) {
    if (quantity.name == name) return &quantity;
  }
  return nullptr;
}

Values Numbers(const std::vector<std::string>& words, std::size_t count, bool whole,
               const std::string& what) {
  if (words.size() != count) {
    UsageError(what + " takes " + Count(count, "number") + ", got " + std::to_string(words.size()));
  }
  Values numbers;
  for (const std::string& word : words) {
    const double number = ParseNumber(word, what);
    if (whole && number != std::floor(number))
      UsageError(what + ": '" + word + "' is no whole number");
    numbers.push_back(number);
  }
  return numbers;
}

Json ValuesJson(const Quantity& quantity, const Values& values) {
  Json json = Json::object();
  for (std::size_t i = 0; i < values.size(); ++i) {
    json[quantity.values[i]] = quantity.whole ? Json(std::lround(values[i])) : Json(values[i]);
  }
  return json;
}

// rgb: reset, take R|G|B (the last capture's raw readings for that reference
// light), adjust xR yR IR xG yG IG xB yB IB.
int RunRgb(const CalibrateOptions& options, const std::string& path) {
  const char* p = path.c_str();
  const int fiber = options.fiber;
  if (options.action == "reset") {
    if (!options.words.empty()) UsageError("rgb reset takes no numbers");
    Require(ZeltoCom_UserCal_ResetRGBAdj(p, fiber), path);
  } else if (options.action == "take") {
    if (options.words.size() != 1 || options.words[0].size() != 1 ||
        std::string("RGB").find(options.words[0]) == std::string::npos) {
      UsageError("rgb take: expected R, G or B");
    }
    Require(ZeltoCom_UserCal_TakeRGBCurrentValues(p, fiber, options.words[0][0]), path);
  } else if (options.action == "adjust") {
    const Values v = Numbers(options.words, 9, false, "rgb adjust");
    const auto f = [&](std::size_t i) { return static_cast<float>(v[i]); };
    Require(
        ZeltoCom_UserCal_AdjustRGB(p, fiber, f(0), f(1), v[2], f(3), f(4), v[5], f(6), f(7), v[8]),
        path);
  } else {
    UsageError("rgb: expected reset, take or adjust, got '" + options.action + "'");
  }
  const Json row = {{"port", path},
                    {"fiber", fiber},
                    {"time", UtcNow()},
                    {"quantity", "rgb"},
                    {"done", options.action}};
  Table table({{"port", "PORT"}, {"fiber", "FIBER"}, {"quantity", "QUANTITY"}, {"done", "DONE"}});
  table.Add(row);
  PrintResult(row, table);
  return kSuccess;
}

int RunCalibrate(const CalibrateOptions& options) {
  const Quantity* quantity = Find(options.quantity);
  if (quantity == nullptr && options.quantity != "rgb") {
    UsageError("expected xy, wavelength, gain, factor or rgb, got '" + options.quantity + "'");
  }
  const std::string what = options.quantity + " " + options.action;
  Values given;
  if (quantity != nullptr) {
    if (options.action == "set" || options.action == "adjust") {
      given = Numbers(options.words, quantity->values.size(), quantity->whole, what);
    } else if (options.action == "get" || options.action == "reset") {
      Numbers(options.words, 0, false, what);
    } else {
      UsageError(options.quantity + ": expected get, set, reset or adjust, got '" + options.action +
                 "'");
    }
    const auto [low, high] = quantity->limits;
    for (const double value : given) {
      if (options.action == "set" && (value < low || value > high)) {
        UsageError(what + ": " + std::to_string(value) + " is outside what the instrument takes");
      }
    }
  }
  const std::string path = OpenPort(options.port, options.baud);
  if (quantity == nullptr) return RunRgb(options, path);
  const char* p = path.c_str();
  if (options.action == "set") {
    Require(quantity->set(p, options.fiber, given, options.temporary ? 0 : 1), path);
  } else if (options.action == "reset") {
    Require(quantity->reset(p, options.fiber), path);
  } else if (options.action == "adjust") {
    Progress progress("capturing to adjust");
    Require(quantity->adjust(p, options.fiber, given), path);
  }
  // What the instrument holds now, whatever was done.
  Values now;
  Require(quantity->get(p, options.fiber, now), path);
  const Json values = ValuesJson(*quantity, now);
  Json row = {{"port", path},     {"serial", SerialOf(path)},   {"fiber", options.fiber},
              {"time", UtcNow()}, {"quantity", quantity->name}, {"values", values}};
  std::string shown;
  for (const auto& [name, value] : values.items()) {
    shown += (shown.empty() ? "" : " ") + name + "=" + CellText(value);
  }
  Table table(
      {{"port", "PORT"}, {"fiber", "FIBER"}, {"quantity", "QUANTITY"}, {"shown", "VALUES"}});
  Json tableRow = row;
  tableRow["shown"] = shown;
  table.Add(tableRow);
  PrintResult(row, table);
  return kSuccess;
}

}  // namespace

Subcommand AddCalibrate(CLI::App& root) {
  auto options = std::make_shared<CalibrateOptions>();
  CLI::App* app =
      root.add_subcommand("calibrate", "a fiber's user calibration: get, set, reset, adjust");
  app->footer(
      "Reads or changes the user calibration of one fiber of the analyser on PORT and\n"
      "prints what it holds then. QUANTITY and ACTION:\n"
      "  xy get|reset, xy set X Y, xy adjust XREF YREF     chromaticity offsets\n"
      "  wavelength get|reset|set NM|adjust NMREF          dominant wavelength offset (-999..999)\n"
      "  gain get|reset|set PERCENT|adjust INTENSITYREF    intensity gain (50..150 %)\n"
      "  factor get|reset|set F|adjust ABSREF              absolute intensity factor\n"
      "  rgb reset | rgb take R|G|B | rgb adjust xR yR IR xG yG IG xB yB IB\n"
      "                                                    colour matrix from reference lights\n"
      "An adjustment captures and moves the reading onto the reference. set stores in\n"
      "the instrument unless --temporary (until power-off).");
  AddOperand(*app, "PORT", options->port, "the analyser's port")->required();
  AddOperand(*app, "QUANTITY", options->quantity, "xy, wavelength, gain, factor or rgb")
      ->required();
  AddOperand(*app, "ACTION", options->action, "get, set, reset, adjust (rgb: take)")->required();
  AddOperands(*app, "NUMBER", options->words, "the values or references");
  app->add_option("-f,--fiber", options->fiber, "the fiber (needed)")
      ->required()
      ->check(CLI::Range(1, 999))
      ->type_name("N");
  app->add_flag("--temporary", options->temporary, "set until power-off only");
  AddBaudOption(*app, options->baud);
  return {app, [options] { return RunCalibrate(*options); }};
}

}  // namespace cli
