// zeltocom project: a project file's instruments opened, listed and closed.
#include <fstream>
#include <memory>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// The IDs the file gives, in its order; the library, which reads the file
// itself, then says which it knows.
std::vector<std::string> IdsIn(std::ifstream& file) {
  std::vector<std::string> ids;
  for (std::string line; std::getline(file, line);) {
    const std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line.compare(start, 3, "ID=") != 0) continue;
    std::string id = line.substr(start + 3);
    while (!id.empty() && (id.back() == '\r' || id.back() == ' ' || id.back() == '\t')) {
      id.pop_back();
    }
    if (!id.empty()) ids.push_back(id);
  }
  return ids;
}

std::string AskById(const std::string& id, const std::string& command) {
  std::vector<char> answer(ZELTOCOM_ANSWER_SIZE, '\0');
  return ZeltoCom_SendByID(id.c_str(), command.c_str(), answer.data()) == 1 ? answer.data() : "";
}

Json Instrument(const std::string& id) {
  char path[ZELTOCOM_DEVICE_PATH_SIZE + 1] = "";
  ZeltoCom_GetPortByID(id.c_str(), path);
  const std::string serial = AskById(id, "GETSERIAL");
  const std::string model = AskById(id, "GETHW");
  return {{"id", id},
          {"path", path},
          {"serial", serial.empty() ? Json() : Json(AnswerJson(serial))},
          {"model", model.empty() ? Json() : Json(AnswerJson(model))}};
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
  for (const std::string& id : IdsIn(text)) {
    const Json row = Instrument(id);
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
