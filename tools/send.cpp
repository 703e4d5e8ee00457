// zeltocom send, zeltocom shell: commands typed by hand, answers as they come.
#include <cctype>
#include <cstdio>
#include <memory>
#include <optional>

#include "commands.hpp"
#include "library.hpp"
#include "line_input.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

Json Connection(const std::string& path, const Json& exchanges) {
  return {{"port", path},
          {"serial", SerialOf(path)},
          {"baud", ZeltoCom_GetBaudrate(path.c_str())},
          {"exchanges", exchanges}};
}

Answer Exchange(const std::string& path, const std::string& command) {
  Progress progress("waiting for the answer to " + command);
  return Send(path, command);
}

Json Record(const std::string& command, const Answer& answer) {
  Json exchange = {{"command", command}, {"time", UtcNow()}};
  if (answer.ok()) {
    exchange["answer"] = AnswerJson(answer.text);
  } else {
    exchange["error"] = answer.error;
  }
  return exchange;
}

// Answers end at their last line; the terminal needs exactly one line end
// per line, and no carriage returns.
void PrintAnswer(const Answer& answer) {
  std::string text;
  for (const std::string& line : Lines(answer.text)) text += line + "\n";
  std::fputs(text.empty() ? "\n" : text.c_str(), stdout);
  std::fflush(stdout);
}

struct SendOptions {
  std::string port;
  std::vector<std::string> commands;
  int baud = 0;
};

int RunSend(const SendOptions& options) {
  const std::string path = OpenPort(options.port, options.baud);
  Json exchanges = Json::array();
  int status = kSuccess;
  for (std::size_t i = 0; i < options.commands.size() && status == kSuccess; ++i) {
    const std::string& command = options.commands[i];
    const Answer answer = Exchange(path, command);
    exchanges.push_back(Record(command, answer));
    if (answer.ok() && !JsonWanted()) PrintAnswer(answer);
    if (!answer.ok()) {
      std::fprintf(stderr, "zeltocom send: %s: %s\n", command.c_str(), answer.error.c_str());
      status = kFailure;
    }
  }
  if (JsonWanted()) PrintJson(Connection(path, exchanges));
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

struct ShellOptions {
  std::string port;
  int baud = 0;
};

int RunShell(const ShellOptions& options) {
  const std::string path = OpenPort(options.port, options.baud);
  const std::string serial = SerialOf(path);
  LineSource lines(serial + "> ");
  if (lines.terminal()) {
    std::printf("%s on %s at %d baud. Type instrument commands; quit or Ctrl-D ends.\n",
                serial.c_str(), path.c_str(), ZeltoCom_GetBaudrate(path.c_str()));
  }
  Json exchanges = Json::array();
  int status = kSuccess;
  bool quit = false;
  while (const std::optional<std::string> line = lines.Next()) {
    const std::string command = Trimmed(*line);
    if (command.empty()) continue;
    quit = IsQuit(command);
    if (quit) break;
    const Answer answer = Exchange(path, command);
    exchanges.push_back(Record(command, answer));
    if (!answer.ok()) {
      std::fprintf(stderr, "%s\n", answer.error.c_str());
      status = kFailure;
    } else if (!JsonWanted()) {
      PrintAnswer(answer);
    }
  }
  if (lines.terminal() && !quit) std::printf("\n");  // the prompt's line, after Ctrl-D
  if (JsonWanted()) PrintJson(Connection(path, exchanges));
  return status;
}

}  // namespace

Subcommand AddSend(CLI::App& root) {
  auto options = std::make_shared<SendOptions>();
  CLI::App* app = root.add_subcommand("send", "send commands, print the answers");
  app->footer("Opens the instrument on PORT, sends each COMMAND (\"GETSERIAL\", \"GETxy01\", ...)\n"
              "in turn and prints each answer. Stops at the first command that fails.");
  AddOperand(*app, "PORT", options->port, "the instrument's port")->required();
  AddOperands(*app, "COMMAND", options->commands, "the commands, in turn")->required();
  AddBaudOption(*app, options->baud);
  return {app, [options] { return RunSend(*options); }};
}

Subcommand AddShell(CLI::App& root) {
  auto options = std::make_shared<ShellOptions>();
  CLI::App* app = root.add_subcommand("shell", "an interactive session with an instrument");
  app->footer("An interactive session with the instrument on PORT: each line typed is sent\n"
              "as a command and its answer printed. " +
              std::string(kTerminalInput) +
              "; lines from a pipe are sent as they come.\n"
              "quit, exit, end of input or Ctrl-C at the prompt ends it; the status is 1 when\n"
              "any command failed.");
  AddOperand(*app, "PORT", options->port, "the instrument's port")->required();
  AddBaudOption(*app, options->baud);
  return {app, [options] { return RunShell(*options); }};
}

}  // namespace cli
