// zeltocom project: a project file's instruments opened, listed and closed.
#include <cctype>
#include <fstream>
#include <memory>
#include <optional>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// An instrument as the file names it.
struct Named {
  std::string id;
  std::string serial;
};

// The value of `key` on a line "KEY=value", or none.
std::optional<std::string> ValueOf(const std::string& line, const std::string& key) {
  const std::size_t start = line.find_first_not_of(" \t");
  if (start == std::string::npos || line.compare(start, key.size() + 1, key + "=") != 0) {
    return std::nullopt;
  }
  std::string value = line.substr(start + key.size() + 1);
  while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.pop_back();
  return value;
}

// The IDs and serial numbers the file gives, a section each; the library,
// which reads the file itself, then says which it knows.
std::vector<Named> NamedIn(std::ifstream& file) {
  std::vector<Named> named;
  for (std::string line; std::getline(file, line);) {
    if (line.find("[DEVICE]") != std::string::npos) named.emplace_back();
    if (named.empty()) continue;
    if (const auto id = ValueOf(line, "ID")) named.back().id = *id;
    if (const auto serial = ValueOf(line, "SERIALNUMBER")) named.back().serial = *serial;
  }
  return named;
}

// A chained instrument answers through its port's own (the bus master).
Answer Ask(const std::string& path, const std::string& serial, const std::string& command) {
  return SerialOf(path) == serial ? Send(path, command) : ChainSend(path, serial, command);
}

Json Instrument(const Named& named) {
  char path[ZELTOCOM_DEVICE_PATH_SIZE + 1] = "";
  ZeltoCom_GetPortByID(named.id.c_str(), path);
  const Answer serial = Ask(path, named.serial, "GETSERIAL");
  const Answer model = Ask(path, named.serial, "GETHW");
  return {{"id", named.id},
          {"path", path},
          {"serial", serial.ok() ? AnswerJson(serial.text) : Json()},
          {"model", model.ok() ? AnswerJson(model.text) : Json()}};
}

int RunProject(const std::string& file) {
  std::ifstream text(file);
  if (!text) UsageError(file + ": cannot be read");
  int opened = 0;
  {
    Progress progress("opening the instruments of " + file);
    opened = ZeltoCom_OpenProject(file.c_str());
  }
  if (opened != 1) Failure(file + ": " + LastError());
  Json instruments = Json::array();
  Table table({{"id", "ID"}, {"path", "PORT"}, {"serial", "SERIAL"}, {"model", "MODEL"}});
  for (const Named& named : NamedIn(text)) {
    if (named.id.empty()) continue;
    const Json row = Instrument(named);
    instruments.push_back(row);
    table.Add(row);
  }
  if (ZeltoCom_CloseProject() != 1) Failure(file + ": " + LastError());
  PrintResult({{"file", file}, {"time", UtcNow()}, {"instruments", instruments}}, table);
  return kSuccess;
}

}  // namespace

Subcommand AddProject(CLI::App& root) {
  auto file = std::make_shared<std::string>();
  CLI::App* app = root.add_subcommand("project", "a project file's instruments: open, list, close");
  app->footer("Opens every instrument of the project file FILE (its [DEVICE] sections), lists\n"
              "each by its ID with its port, serial number and model, and closes them again.\n"
              "An instrument that does not open fails the whole file, as in a program.");
  AddOperand(*app, "FILE", *file, "the project file")->required();
  return {app, [file] { return RunProject(*file); }};
}

}  // namespace cli
