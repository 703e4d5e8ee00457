// Feeds every file of the given directories to a fuzz target once: the
// seed corpus as a test wherever libFuzzer is not at hand.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string input((std::istreambuf_iterator<char>(file)),
                              std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
      ++replayed;
    }
  }
  std::printf("%d inputs replayed\n", replayed);
  return replayed > 0 ? 0 : 1;
}
