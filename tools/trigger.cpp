// zeltocom trigger: the external trigger switched on or off, and its reports
// printed as they come.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "commands.hpp"
#include "interrupt.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

struct TriggerOptions {
  std::string port;
  bool enable = false;
  bool listen = false;
  bool disable = false;
  int range = 0;
  bool pwm = false;
  std::string output = "XYI";
  unsigned preDelay = 0;
  unsigned postDelay = 0;
  bool temporary = false;
  int count = 0;  // 0: until Ctrl-C
  int baud = 0;
};

// SET forms keep the setting in the instrument, PUT forms until power-off.
int SetMode(const TriggerOptions& options) { return options.temporary ? 0 : 1; }

// A report's lines, each a list of its numbers (or words).
Json ReportLines(const std::string& text) {
  Json lines = Json::array();
  for (const std::string& line : Lines(text)) {
    Json words = Json::array();
    std::istringstream in(line);
    for (std::string word; in >> word;) words.push_back(NumberOrText(word));
    lines.push_back(words);
  }
  return lines;
}

void PrintReport(const std::string& path, int number, const std::string& text) {
  const std::string time = UtcNow();
  if (JsonWanted()) {
    PrintJson({{"port", path}, {"report", number}, {"time", time}, {"lines", ReportLines(text)}});
    return;
  }
  for (const std::string& line : Lines(text))
    std::printf("%s  %d  %s\n", time.c_str(), number, line.c_str());
  std::fflush(stdout);
}

// Waits for the next report; false once Ctrl-C came.
bool AwaitReport(const std::string& path) {
  Require(ZeltoCom_ExternalTrigger_Listen(path.c_str()), path);
  for (;;) {
    if (Interrupted()) return false;
    const int state = ZeltoCom_ExternalTrigger_isFinished(path.c_str());
    if (state == 1) return true;
    if (state != 0) Failure(path + ": the wait for a report failed: " + PortError(path));
    usleep(10'000);
  }
}

int Listen(const std::string& path, int count) {
  const Aftermath aftermath([&] {
    return "The trigger of " + path +
           " stays on: each pulse still makes it capture "
           "('zeltocom trigger " +
           path + " --disable' switches it off).";
  });
  std::vector<char> report(ZELTOCOM_ANSWER_SIZE, '\0');
  for (int number = 1; count == 0 || number <= count; ++number) {
    if (!AwaitReport(path)) {
      // Ctrl-C is how an endless listen ends: no failure.
      std::fprintf(stderr, "zeltocom trigger: stopped listening. %s\n", AftermathText().c_str());
      return kSuccess;
    }
    Require(ZeltoCom_GetResponseByPort(path.c_str(), report.data()), path);
    PrintReport(path, number, report.data());
  }
  return kSuccess;
}

int RunTrigger(const TriggerOptions& options) {
  if (options.enable + options.listen + options.disable != 1) {
    UsageError("give one of --enable, --listen and --disable");
  }
  const std::string path = OpenPort(options.port, options.baud);
  if (options.listen) return Listen(path, options.count);
  if (options.enable) {
    Require(ZeltoCom_ExternalTrigger_Enable(path.c_str(), options.range, options.pwm ? 1 : 0,
                                            options.output.c_str(), options.preDelay,
                                            options.postDelay, SetMode(options)),
            path);
  } else {
    Require(ZeltoCom_ExternalTrigger_Disable(path.c_str(), SetMode(options)), path);
  }
  const Json row = {{"port", path},
                    {"serial", SerialOf(path)},
                    {"time", UtcNow()},
                    {"trigger", options.enable ? "on" : "off"},
                    {"stored", !options.temporary}};
  Table table({{"port", "PORT"}, {"serial", "SERIAL"}, {"trigger", "TRIGGER"}});
  table.Add(row);
  PrintResult(row, table);
  return kSuccess;
}

}  // namespace

Subcommand AddTrigger(CLI::App& root) {
  auto options = std::make_shared<TriggerOptions>();
  CLI::App* app = root.add_subcommand("trigger", "the external trigger: on, off, or its reports");
  app->footer("--enable makes the instrument on PORT capture on each pulse at its trigger input\n"
              "and send a report: one line of readings per fiber (--output XYI, HSI, RGBI, CCTI,\n"
              "ABSINT, WSI) or \"OK\" (NONE). --listen prints each report as it comes, with its\n"
              "time, until --count reports came or Ctrl-C ends it (the trigger stays on then).\n"
              "--disable switches the trigger off. Settings are stored in the instrument unless\n"
              "--temporary keeps them until power-off only.");
  AddOperand(*app, "PORT", options->port, "the instrument's port")->required();
  CLI::Option* enable = app->add_flag("--enable", options->enable, "switch the trigger on");
  CLI::Option* listen =
      app->add_flag("--listen", options->listen, "print the reports as they come");
  app->add_flag("--disable", options->disable, "switch the trigger off");
  CLI::Option* range =
      app->add_option("-r,--range", options->range, "capture range 1 to 5 (default 0: automatic)")
          ->check(CLI::Range(0, 5))
          ->type_name("N");
  CLI::Option* pwm = app->add_flag("-p,--pwm", options->pwm, "capture in PWM mode");
  CLI::Option* output =
      app->add_option("-o,--output", options->output, "what a report holds (default XYI)")
          ->check(CLI::IsMember({"NONE", "HSI", "XYI", "RGBI", "CCTI", "ABSINT", "WSI"},
                                CLI::ignore_case))
          ->type_name("TYPE");
  CLI::Option* pre = app->add_option("--pre-delay", options->preDelay,
                                     "wait MS ms after the pulse (analysers: up to 999)")
                         ->type_name("MS");
  CLI::Option* post = app->add_option("--post-delay", options->postDelay,
                                      "wait MS ms after the capture (analysers: up to 999)")
                          ->type_name("MS");
  for (CLI::Option* setting : {range, pwm, output, pre, post}) setting->needs(enable);
  app->add_flag("--temporary", options->temporary, "keep the setting until power-off only");
  app->add_option("-n,--count", options->count, "stop after N reports")
      ->check(CLI::PositiveNumber)
      ->type_name("N")
      ->needs(listen);
  AddBaudOption(*app, options->baud);
  return {app, [options] { return RunTrigger(*options); }};
}

}  // namespace cli
