#include "library.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

#include "args.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// One answer buffer per thread that sends, with room for any answer.
char* AnswerBuffer() {
  thread_local std::unique_ptr<char[]> buffer(new char[ZELTOCOM_ANSWER_SIZE]);
  buffer[0] = '\0';
  return buffer.get();
}

Answer Outcome(int result, const char* text, const std::string& path) {
  Answer answer{result, "", ""};
  if (result == 1) {
    answer.text = text;
  } else {
    answer.error = PortError(path);
  }
  return answer;
}

std::vector<const char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  return pointers;
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : ", ") + text;
  return joined;
}

// The listed path that is the same file as `name`, if any.
std::string ListedLinkTarget(const std::string& name, const std::vector<std::string>& listed) {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::canonical(name, error);
  if (error) return "";
  for (const std::string& path : listed) {
    if (std::filesystem::canonical(path, error) == target && !error) return path;
  }
  return "";
}

std::string PortOfSerial(const std::string& serial, int baud, std::size_t ports) {
  if (serial.empty() || serial.size() >= ZELTOCOM_SERIAL_NUMBER_SIZE ||
      serial.find('/') != std::string::npos) {
    return "";
  }
  std::vector<char> path(std::max<std::size_t>(ZELTOCOM_DEVICE_PATH_SIZE, 255), '\0');
  Progress progress("looking for " + serial + " on " + Count(ports, "port"));
  return ZeltoCom_IsConnected(path.data(), serial.c_str(), baud) > 0 ? path.data() : "";
}

}  // namespace

PathBuffers::PathBuffers(std::size_t count)
    : storage(count, std::vector<char>(ZELTOCOM_DEVICE_PATH_SIZE, '\0')) {
  for (auto& buffer : storage) pointers.push_back(buffer.data());
}

std::vector<std::string> PathBuffers::First(int count) const {
  std::vector<std::string> paths;
  for (int i = 0; i < count && i < static_cast<int>(storage.size()); ++i) {
    paths.emplace_back(storage[static_cast<std::size_t>(i)].data());
  }
  return paths;
}

Origin PortsOrigin() {
  // The library lists the paths of ZELTOCOM_PORTS whenever it is set, even
  // empty, and the machine's serial ports only otherwise.
  if (std::getenv("ZELTOCOM_PORTS") != nullptr) return {"ZELTOCOM_PORTS", "ZELTOCOM_PORTS"};
  return {"system", "the system (/sys/class/tty)"};
}

std::vector<std::string> EnumeratedPorts() {
  const int count = ZeltoCom_EnumPorts();
  // The library empties the first 8 entries whatever the count.
  PathBuffers buffers(static_cast<std::size_t>(std::max(count, 8)));
  return buffers.First(count > 0 ? ZeltoCom_ListPortsDetected(buffers.pointers.data()) : 0);
}

std::string ResolvePort(const std::string& name, int baud) {
  const std::vector<std::string> listed = EnumeratedPorts();
  if (std::find(listed.begin(), listed.end(), name) != listed.end()) return name;
  if (std::string path = ListedLinkTarget(name, listed); !path.empty()) return path;
  if (std::string path = PortOfSerial(name, baud, listed.size()); !path.empty()) return path;
  const std::string looked = "looked for a port of that path, a link to one and an instrument "
                             "of that serial number among the " +
                             Count(listed.size(), "port") + " of " + PortsOrigin().text;
  Failure(name + ": no such instrument; " + looked +
          (listed.empty() ? "" : " (" + Joined(listed) + ")"));
}

std::string LastError() {
  char text[ZELTOCOM_ERROR_TEXT_SIZE] = "";
  return ZeltoCom_GetError_Description(text);
}

std::string PortError(const std::string& path) {
  char text[ZELTOCOM_ERROR_TEXT_SIZE] = "";
  return ZeltoCom_GetError_DescriptionByPort(path.c_str(), text);
}

std::string OpenPort(const std::string& name, int baud) {
  const std::string path = ResolvePort(name, baud);
  int result = 0;
  {
    Progress progress("opening " + path);
    result = ZeltoCom_Open(path.c_str(), baud);
  }
  // Only the path (too long) and the rate are refused before the line is tried.
  if (result == -1) UsageError(path + ": " + PortError(path));
  Require(result, path);
  return path;
}

void Require(int result, const std::string& path) {
  if (result == 1) return;
  throw Stop{kFailure, path + ": " + PortError(path)};
}

void OpenPorts(const std::vector<std::string>& paths, int baud) {
  std::vector<int> results(paths.size(), 0);
  const std::vector<const char*> names = Pointers(paths);
  int result = 0;
  {
    Progress progress("opening " + Count(paths.size(), "port"));
    result =
        ZeltoCom_Open_Multi(results.data(), names.data(), static_cast<int>(names.size()), baud);
  }
  if (result == 1) return;
  // The library's text is that of the first port that failed.
  std::string where = "opening";
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (results[i] != 1) {
      where = paths[i];
      break;
    }
  }
  throw Stop{result == -1 ? kUsage : kFailure, where + ": " + LastError()};
}

Answer Send(const std::string& path, const std::string& command) {
  char* buffer = AnswerBuffer();
  return Outcome(ZeltoCom_Send(path.c_str(), command.c_str(), buffer), buffer, path);
}

Answer ChainSend(const std::string& path, const std::string& serial, const std::string& command) {
  char* buffer = AnswerBuffer();
  const int result =
      ZeltoCom_DaisyChain_Send(path.c_str(), serial.c_str(), command.c_str(), buffer);
  return Outcome(result, buffer, path);
}

std::vector<Answer> SendToEach(const std::vector<std::string>& paths, const std::string& command) {
  std::vector<std::unique_ptr<char[]>> buffers;
  std::vector<char*> responses;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    buffers.emplace_back(new char[ZELTOCOM_ANSWER_SIZE]);
    buffers.back()[0] = '\0';
    responses.push_back(buffers.back().get());
  }
  const std::vector<const char*> names = Pointers(paths);
  const std::vector<const char*> commands(paths.size(), command.c_str());
  std::vector<int> results(paths.size(), 0);
  ZeltoCom_Send_Multi(results.data(), names.data(), static_cast<int>(names.size()), commands.data(),
                      responses.data());
  std::vector<Answer> answers;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    answers.push_back(Outcome(results[i], responses[i], paths[i]));
  }
  return answers;
}

std::vector<Answer> AtOnce(const std::vector<std::string>& paths,
                           const std::function<int(const std::string&)>& call) {
  std::vector<Answer> outcomes(paths.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    threads.emplace_back([&, i] {
      outcomes[i].result = call(paths[i]);
      // The library's last error is its own for each thread.
      if (outcomes[i].result != 1) outcomes[i].error = LastError();
    });
  }
  for (std::thread& thread : threads) thread.join();
  return outcomes;
}

std::string Expect(const Answer& answer, const std::string& where) {
  if (!answer.ok()) Failure(where + ": " + answer.error);
  return answer.text;
}

std::string SerialOf(const std::string& path) {
  char serial[ZELTOCOM_SERIAL_NUMBER_SIZE] = "";
  return ZeltoCom_GetSNByPort(serial, path.c_str()) == 1 ? serial : "";
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

std::string FiberCommand(const std::string& name, int fiber) {
  char number[16];
  std::snprintf(number, sizeof number, "%02d", fiber);
  return name + number;
}

}  // namespace cli
