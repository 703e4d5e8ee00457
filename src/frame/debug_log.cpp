#include "frame/debug_log.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace zeltocom {

namespace {

std::mutex mtxLogging;

bool ReadTraceWanted() {
  const char* value = std::getenv("ZELTOCOM_DEBUG");
  return value != nullptr && value[0] != '\0' && std::strcmp(value, "0") != 0;
}

const bool kTraceWanted = ReadTraceWanted();

}  // namespace

void Logging(std::string_view tag, std::string_view message) {
  const std::string tagText(tag);
  const std::string messageText(message);
  std::lock_guard lock(mtxLogging);
  std::FILE* file = std::fopen("./debug.txt", "a");
  if (file == nullptr) return;
  std::fprintf(file, "%lld [%s] -> %s\r\n", static_cast<long long>(std::time(nullptr)),
               tagText.c_str(), messageText.c_str());
  std::fclose(file);
}

void Trace(std::string_view tag, std::string_view message) {
  if (kTraceWanted) Logging(tag, message);
}

}  // namespace zeltocom
