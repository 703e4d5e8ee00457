// zeltocom: the library's instruments from a shell, one subcommand each.
#include <algorithm>
#include <cstdio>
#include <exception>

#include "commands.hpp"
#include "interrupt.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// "3.2.0", as a version number stands in "zeltocom 3.2.0".
std::string LibraryVersion() {
  char version[32] = "";
  ZeltoCom_GetLibraryVersion(version);
  return version[0] == 'v' ? version + 1 : version;
}

// The root: its own options, every subcommand, and "help COMMAND".
class Tool {
 public:
  Tool() : root_("Drives LED analysers and spectrometers through ZeltoCom.", "zeltocom") {
    root_.set_version_flag("--version", "zeltocom " + LibraryVersion());
    root_.fallthrough();  // the root's options also after a subcommand's words
    root_.require_subcommand(1);
    AddGlobalOptions(root_);
    root_.footer(
        "The library sees the ports listed in ZELTOCOM_PORTS (\"path1;path2\") when it is "
        "set.\n'zeltocom COMMAND --help' or 'zeltocom help COMMAND' tells more. Options may "
        "stand\nanywhere after the command; \"--\" ends them. Exit status: 0 success, 1 an "
        "instrument\nor line failure (a time-out, an unplugged or busy instrument, a wrong "
        "model), 2 bad\nusage, 130 ended by Ctrl-C.");
    for (const auto add :
         {AddPorts, AddDetect, AddSend, AddShell, AddCapture, AddChain, AddSequence, AddBin,
          AddSpectrometer, AddTrigger, AddCalibrate, AddProject, AddPlot}) {
      subcommands_.push_back(add(root_));
    }
#ifdef ZELTOCOM_PLANS
    subcommands_.push_back(AddTest(root_));
#endif
#ifdef ZELTOCOM_SQLITE
    subcommands_.push_back(AddResults(root_));
#endif
    help_ = root_.add_subcommand("help", "this text, or a command's");
    AddOperand(*help_, "COMMAND", helpTopic_, "the command to tell about");
  }

  int Run(int argc, char** argv) {
    std::vector<std::string> words = MarkWordsAfterDashes(argc, argv);
    std::reverse(words.begin(), words.end());  // as CLI11 takes them
    try {
      root_.parse(words);
    } catch (const CLI::CallForHelp&) {
      // CLI11 takes a bare "help" for a call for help of its own.
      return Parsed() == help_ ? RunHelp() : PrintHelp(Parsed());
    } catch (const CLI::CallForVersion& version) {
      std::printf("%s\n", version.what());
      return kSuccess;
    } catch (const CLI::ParseError& error) {
      const bool noCommand = Parsed() == nullptr && argc == 1;
      if (noCommand) {
        PrintHelp(nullptr, stderr);
        return kUsage;
      }
      const std::vector<std::string> unknown = root_.remaining();
      if (Parsed() == nullptr && !unknown.empty()) {
        return Report("zeltocom", Stop{kUsage, "unknown command '" + unknown.front() + "'"});
      }
      return Report(Name(Parsed()), Stop{kUsage, error.what()});
    }
    if (Global().csv && !Global().json.empty()) {
      return Report(Name(Parsed()), Stop{kUsage, "--json and --csv exclude each other"});
    }
    if (help_->parsed()) return RunHelp();
    CLI::App* chosen = Parsed();
    for (const Subcommand& subcommand : subcommands_) {
      if (subcommand.app == chosen) return RunSubcommand(Name(chosen), subcommand.run);
    }
    return kUsage;
  }

 private:
  CLI::App* Parsed() const {
    const std::vector<CLI::App*> parsed = root_.get_subcommands();
    return parsed.empty() ? nullptr : parsed.front();
  }

  static std::string Name(const CLI::App* app) {
    return app == nullptr ? "zeltocom" : "zeltocom " + app->get_name();
  }

  int PrintHelp(const CLI::App* app, std::FILE* to = stdout) const {
    // The root's own help: CLI11's help() would be that of the parsed subcommand.
    std::string prefix = "zeltocom";
    // "plot cie --help": the help of the innermost command named.
    while (app != nullptr && !app->get_subcommands().empty()) {
      prefix += " " + app->get_name();
      app = app->get_subcommands().front();
    }
    const std::string text = app == nullptr ? root_.get_formatter()->make_help(
                                                  &root_, "zeltocom", CLI::AppFormatMode::Normal)
                                            : app->help(prefix);
    std::fputs(text.c_str(), to);
    return kSuccess;
  }

  int RunHelp() const {
    if (helpTopic_.empty()) return PrintHelp(nullptr);
    for (const Subcommand& subcommand : subcommands_) {
      if (subcommand.app->get_name() == helpTopic_) return PrintHelp(subcommand.app);
    }
    return Report("zeltocom help", Stop{kUsage, "no command '" + helpTopic_ + "'"});
  }

  static int RunSubcommand(const std::string& name, const std::function<int()>& run) {
    // No answer is cut: the library refuses longer ones itself.
    ZeltoCom_SetResponseBufferSize(ZELTOCOM_ANSWER_SIZE);
    const std::optional<std::string>& trace = Global().trace;
    if (trace && ZeltoCom_SetTrace(trace->empty() ? "stderr" : trace->c_str()) != 1) {
      return Report(name, Stop{kUsage, "--trace: " + LastError()});
    }
    if (Global().timeoutMs > 0) ZeltoCom_SetResponseTimeout(Global().timeoutMs);
    int status = kSuccess;
    {
      const InterruptWatch watch;
      try {
        status = run();
      } catch (const Stop& stop) {
        // What an interrupt made fail is no failure of its own.
        status = Interrupted() ? kInterrupted : Report(name, stop);
      } catch (const std::exception& error) {
        status = Report(name, Stop{kFailure, error.what()});
      }
    }
    if (Interrupted() && status != kSuccess) status = ReportInterrupt(name);
    ZeltoCom_CloseAll();
    // The closes are traced too; then the trace file is complete.
    if (trace) ZeltoCom_SetTrace(nullptr);
    return status;
  }

  // The error on stderr; with --json the JSON on stdout carries it too.
  static int Report(const std::string& name, const Stop& stop) {
    std::fprintf(stderr, "%s: %s\n", name.c_str(), stop.text.c_str());
    if (stop.status == kUsage) std::fprintf(stderr, "Try '%s --help'.\n", name.c_str());
    if (!Global().json.empty()) {
      PrintJson({{"error", stop.text}, {"exit_status", stop.status}});
    }
    return stop.status;
  }

  // Ctrl-C: the ports are closed; the instruments may go on with what they
  // were told.
  static int ReportInterrupt(const std::string& name) {
    const std::string aftermath = AftermathText();
    std::fprintf(stderr, "%s: interrupted; its ports are closed.%s\n", name.c_str(),
                 aftermath.empty() ? "" : (" " + aftermath).c_str());
    if (!Global().json.empty()) {
      PrintJson({{"error", "interrupted"},
                 {"exit_status", kInterrupted},
                 {"aftermath", aftermath.empty() ? Json() : Json(aftermath)}});
    }
    return kInterrupted;
  }

  CLI::App root_;
  std::vector<Subcommand> subcommands_;
  CLI::App* help_ = nullptr;
  std::string helpTopic_;
};

}  // namespace
}  // namespace cli

int main(int argc, char** argv) { return cli::Tool().Run(argc, argv); }
