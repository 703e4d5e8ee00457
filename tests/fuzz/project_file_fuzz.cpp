// The project file reader: any text gives rows or an error, and accepted
// rows keep the table's rules.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "api/project.hpp"
#include "fuzz_check.hpp"

using namespace zeltocom;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ProjectFile file =
      ReadProjectFile(std::string_view(reinterpret_cast<const char*>(data), size));
  Require(file.error.empty() == (file.result == 1));
  Require(file.result == 1 || file.result == 0 || file.result == -1);
  std::set<std::string> ids;
  std::set<std::string> masters;
  for (const s_IDPort& row : file.rows) {
    Require(!row.devicePath.empty() && !row.deviceID.empty() && !row.serialNumber.empty());
    Require(ids.insert(std::string(row.deviceID.view())).second);
    const std::string path(row.devicePath.view());
    Require(row.chained ? masters.contains(path) : masters.insert(path).second);
  }
  return 0;
}
