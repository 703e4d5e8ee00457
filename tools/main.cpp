// zeltocom: the library's instruments from a shell, one subcommand each.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      PortsCommand(),   DetectCommand(), SendCommand(),     ShellCommand(),
      CaptureCommand(), ChainCommand(),  SequenceCommand(), BinCommand(),
  };
  return commands;
}

std::string Overview() {
  char version[32] = "";
  ZeltoCom_GetLibraryVersion(version);
  std::string text =
      "Usage: zeltocom [--trace [DESTINATION]] COMMAND [ARGUMENTS] [--json]\n\n"
      "Drives LED analysers and spectrometers through ZeltoCom " +
      std::string(version) +
      ".\n"
      "The library sees the ports listed in ZELTOCOM_PORTS (\"path1;path2\") when it is set.\n\n"
      "Commands:\n";
  for (const Command& command : Commands()) {
    std::string usage = "  " + command.name + " " + command.operands;
    usage.resize(std::max<std::size_t>(usage.size() + 2, 26), ' ');
    text += usage + command.brief + "\n";
  }
  return text + "\n--trace [DESTINATION] writes the library's wire trace of the command (every\n"
                "command sent, every answer received) to DESTINATION: a file, or stderr (the\n"
                "default).\n"
                "\n'zeltocom COMMAND --help' tells more. Exit status: 0 success, 1 an instrument\n"
                "failure or time-out, 2 bad usage.\n";
}

const Command* Find(const std::string& name) {
  for (const Command& command : Commands()) {
    if (command.name == name) return &command;
  }
  return nullptr;
}

int Run(const Command& command, const std::vector<std::string>& words) {
  const Args args(command, words);
  if (args.Has("--help")) {
    std::fputs(HelpText(command).c_str(), stdout);
    return kSuccess;
  }
  return command.run(args);
}

// The options before the command; `next` is then the command's place.
struct GlobalOptions {
  std::optional<std::string> trace;  // where the wire trace goes
  int next = 1;
};

GlobalOptions ReadGlobalOptions(int argc, char** argv) {
  GlobalOptions options;
  for (; options.next < argc; ++options.next) {
    const std::string word = argv[options.next];
    if (word.rfind("--trace=", 0) == 0) {
      options.trace = word.substr(8);
    } else if (word == "--trace") {
      // The destination is optional: a command's name or an option is none.
      const bool given = options.next + 1 < argc && argv[options.next + 1][0] != '-' &&
                         Find(argv[options.next + 1]) == nullptr;
      options.trace = given ? argv[++options.next] : "stderr";
    } else {
      break;
    }
  }
  return options;
}

// The error on stderr; with --json the JSON on stdout carries it too.
int Report(const std::string& name, const Stop& stop, bool json) {
  std::fprintf(stderr, "zeltocom %s: %s\n", name.c_str(), stop.text.c_str());
  if (stop.status == kUsage) std::fprintf(stderr, "Try 'zeltocom %s --help'.\n", name.c_str());
  if (json) {
    PrintJson(Json::MakeObject().Set("error", stop.text).Set("exit_status", stop.status));
  }
  return stop.status;
}

}  // namespace
}  // namespace cli

int main(int argc, char** argv) {
  using namespace cli;
  const GlobalOptions global = ReadGlobalOptions(argc, argv);
  const std::vector<std::string> words(argv + std::min(argc, global.next + 1), argv + argc);
  const std::string name = global.next < argc ? argv[global.next] : "";
  if (name == "--help" || name == "-h" || name == "help") {
    std::fputs(Overview().c_str(), stdout);
    return kSuccess;
  }
  const Command* command = Find(name);
  if (command == nullptr) {
    if (!name.empty()) std::fprintf(stderr, "zeltocom: unknown command '%s'\n\n", name.c_str());
    std::fputs(Overview().c_str(), stderr);
    return kUsage;
  }
  const bool json = std::find(words.begin(), words.end(), "--json") != words.end();
  // No answer is cut: the library refuses longer ones itself.
  ZeltoCom_SetResponseBufferSize(ZELTOCOM_ANSWER_SIZE);
  if (global.trace && ZeltoCom_SetTrace(global.trace->c_str()) != 1) {
    return Report(name, Stop{kUsage, "--trace: " + LastError()}, json);
  }
  int status = kSuccess;
  try {
    status = Run(*command, words);
  } catch (const Stop& stop) {
    status = Report(name, stop, json);
  } catch (const std::exception& error) {
    status = Report(name, Stop{kFailure, error.what()}, json);
  }
  ZeltoCom_CloseAll();
  // The closes are traced too; then the trace file is complete.
  if (global.trace) ZeltoCom_SetTrace(nullptr);
  return status;
}
