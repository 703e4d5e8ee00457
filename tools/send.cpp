// zeltocom send, zeltocom shell: commands typed by hand, answers as they come.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "commands.hpp"
#include "library.hpp"
#include "line_input.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

Option TimeoutOption() {
  return {"--timeout", "MS", "wait up to MS ms for each answer (default 2500)"};
}

// Opens the port with the options send and shell share.
void Connect(const Args& args, const std::string& path) {
  if (args.Has("--timeout")) {
    ZeltoCom_SetResponseTimeout(static_cast<int>(args.Whole("--timeout", 0, 1, 3'600'000)));
  }
  OpenPort(path, args.Baud());
}

Json Connection(const std::string& path) {
  return Json::MakeObject()
      .Set("port", path)
      .Set("serial", SerialOf(path))
      .Set("baud", ZeltoCom_GetBaudrate(path.c_str()));
}

Answer Exchange(const std::string& path, const std::string& command) {
  Progress progress("waiting for the answer to " + command);
  return Send(path, command);
}

Json Record(const std::string& command, const Answer& answer) {
  Json exchange = Json::MakeObject().Set("command", command);
  if (answer.ok()) return exchange.Set("answer", answer.text);
  return exchange.Set("error", answer.error);
}

// Answers end at their last line; the terminal needs exactly one line end.
void PrintAnswer(const Answer& answer) {
  std::string text = answer.text;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

int RunSend(const Args& args) {
  const std::string& path = args.operands().front();
  Connect(args, path);
  Json exchanges = Json::MakeArray();
  int status = kSuccess;
  for (std::size_t i = 1; i < args.operands().size() && status == kSuccess; ++i) {
    const std::string& command = args.operands()[i];
    const Answer answer = Exchange(path, command);
    exchanges.Push(Record(command, answer));
    if (answer.ok() && !args.json()) PrintAnswer(answer);
    if (!answer.ok()) {
      std::fprintf(stderr, "zeltocom send: %s: %s\n", command.c_str(), answer.error.c_str());
      status = kFailure;
    }
  }
  if (args.json()) PrintJson(Connection(path).Set("exchanges", exchanges));
  return status;
}

std::string Trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool IsQuit(std::string line) {
  for (char& c : line) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return line == "quit" || line == "exit";
}

int RunShell(const Args& args) {
  const std::string& path = args.operands().front();
  Connect(args, path);
  const std::string serial = SerialOf(path);
  LineSource lines(serial + "> ");
  if (lines.terminal()) {
    std::printf("%s on %s at %d baud. Type instrument commands; quit or Ctrl-D ends.\n",
                serial.c_str(), path.c_str(), ZeltoCom_GetBaudrate(path.c_str()));
  }
  Json exchanges = Json::MakeArray();
  int status = kSuccess;
  bool quit = false;
  while (const std::optional<std::string> line = lines.Next()) {
    const std::string command = Trimmed(*line);
    if (command.empty()) continue;
    quit = IsQuit(command);
    if (quit) break;
    const Answer answer = Exchange(path, command);
    exchanges.Push(Record(command, answer));
    if (!answer.ok()) {
      std::fprintf(stderr, "%s\n", answer.error.c_str());
      status = kFailure;
    } else if (!args.json()) {
      PrintAnswer(answer);
    }
  }
  if (lines.terminal() && !quit) std::printf("\n");  // the prompt's line, after Ctrl-D
  if (args.json()) PrintJson(Connection(path).Set("exchanges", exchanges));
  return status;
}

}  // namespace

Command SendCommand() {
  return {"send",
          "PORT COMMAND...",
          2,
          -1,
          "send commands, print the answers",
          "Opens the instrument on PORT, sends each COMMAND (\"GETSERIAL\", \"GETxy01\", ...)\n"
          "in turn and prints each answer. Stops at the first command that fails.",
          {BaudOption(), TimeoutOption()},
          RunSend};
}

Command ShellCommand() {
  return {"shell",
          "PORT",
          1,
          1,
          "an interactive session with an instrument",
          "An interactive session with the instrument on PORT: each line typed is sent\n"
          "as a command and its answer printed. " +
              std::string(kTerminalInput) +
              "; lines from a pipe are sent as they come.\n"
              "quit, exit or end of input ends it; the status is 1 when any command failed.",
          {BaudOption(), TimeoutOption()},
          RunShell};
}

}  // namespace cli
