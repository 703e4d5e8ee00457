// zeltocom spectrometer: a spectrum or a dark reference taken.
#include <memory>
#include <optional>

#include "commands.hpp"
#include "interrupt.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

struct SpectrometerOptions {
  std::string port;
  bool dark = false;
  std::optional<double> exposureMs;  // none: the instrument chooses
  bool pwm = false;
  int baud = 0;
};

int RunSpectrometer(const SpectrometerOptions& options) {
  const std::string path = OpenPort(options.port, options.baud);
  const int manual = options.exposureMs ? 1 : 0;
  const auto exposure = static_cast<float>(options.exposureMs.value_or(0));
  const int pwm = options.pwm ? 1 : 0;
  const std::string time = UtcNow();
  int result = 0;
  {
    const std::string what = options.dark ? "its dark reference" : "its spectrum";
    const Aftermath aftermath(
        [&] { return "The spectrometer on " + path + " may still be taking " + what + "."; });
    Progress progress("taking " + what);
    result = options.dark ? ZeltoCom_SpectrometerDark(path.c_str(), pwm, manual, exposure)
                          : ZeltoCom_SpectrometerCapture(path.c_str(), pwm, manual, exposure);
  }
  Require(result, path);
  const Json row = {{"port", path},
                    {"serial", SerialOf(path)},
                    {"time", time},
                    {"taken", options.dark ? "dark" : "spectrum"},
                    {"exposure_ms", options.exposureMs ? Json(*options.exposureMs) : Json()},
                    {"pwm", options.pwm}};
  Table table(
      {{"port", "PORT"}, {"serial", "SERIAL"}, {"taken", "TAKEN"}, {"exposure_ms", "EXPOSURE MS"}});
  table.Add(row);
  PrintResult(row, table);
  return kSuccess;
}

}  // namespace

Subcommand AddSpectrometer(CLI::App& root) {
  auto options = std::make_shared<SpectrometerOptions>();
  CLI::App* app = root.add_subcommand("spectrometer", "a spectrum, or the dark reference, taken");
  app->footer("Opens the spectrometer on PORT and takes a spectrum (or, with --dark, the dark\n"
              "reference it subtracts from later spectra). The instrument keeps what it took;\n"
              "this prints when, and how. The exposure is the instrument's choice unless given:\n"
              "at most 4000 ms on the -W2 models, 15000 ms on the others (a longer one fails).\n"
              "--pwm matters to the -W2 models only.");
  AddOperand(*app, "PORT", options->port, "the spectrometer's port")->required();
  app->add_flag("-d,--dark", options->dark, "take the dark reference instead of a spectrum");
  app->add_option("-e,--exposure", options->exposureMs, "expose for MS ms")
      ->check(CLI::NonNegativeNumber)
      ->type_name("MS");
  AddPwmOption(*app, options->pwm);
  AddBaudOption(*app, options->baud);
  return {app, [options] { return RunSpectrometer(*options); }};
}

}  // namespace cli
