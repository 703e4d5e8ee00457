// zeltocom: the library's instruments from a shell, one subcommand each.
#include <algorithm>
#include <cstdio>
#include <exception>

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
      "Usage: zeltocom COMMAND [ARGUMENTS] [--json]\n\n"
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
  return text +
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
  const std::vector<std::string> words(argv + std::min(argc, 2), argv + argc);
  const std::string name = argc >= 2 ? argv[1] : "";
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
  int status = kSuccess;
  try {
    status = Run(*command, words);
  } catch (const Stop& stop) {
    status = Report(name, stop, json);
  } catch (const std::exception& error) {
    status = Report(name, Stop{kFailure, error.what()}, json);
  }
  ZeltoCom_CloseAll();
  return status;
}
