#include "library.hpp"

#include <cstdio>
#include <memory>

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

}  // namespace

std::string LastError() {
  char text[ZELTOCOM_ERROR_TEXT_SIZE] = "";
  return ZeltoCom_GetError_Description(text);
}

std::string PortError(const std::string& path) {
  char text[ZELTOCOM_ERROR_TEXT_SIZE] = "";
  return ZeltoCom_GetError_DescriptionByPort(path.c_str(), text);
}

void OpenPort(const std::string& path, int baud) {
  int result = 0;
  {
    Progress progress("opening " + path);
    result = ZeltoCom_Open(path.c_str(), baud);
  }
  Require(result, path);
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
    Progress progress("opening " + std::to_string(paths.size()) + " ports");
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
