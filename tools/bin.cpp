// zeltocom bin: the bin of a chromaticity point in a bin file.
#include <sys/stat.h>

#include <cstdio>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

int RunBin(const Args& args) {
  const std::string& file = args.operands()[0];
  const double x = ParseNumber(args.operands()[1], "X");
  const double y = ParseNumber(args.operands()[2], "Y");
  // No bin name is longer than the file that holds it.
  struct stat status {};
  const std::size_t room = stat(file.c_str(), &status) == 0 && status.st_size > 0
                               ? static_cast<std::size_t>(status.st_size) + 1
                               : 256;
  std::vector<char> name(std::max<std::size_t>(room, 256), '\0');
  const int result = ZeltoCom_Binning_GetBinFromVECFile(
      file.c_str(), name.data(), static_cast<float>(x), static_cast<float>(y));
  if (result == -1) UsageError(file + ": " + LastError());
  const Json bin = result == 1 ? Json(std::string(name.data())) : Json();
  if (args.json()) {
    PrintJson(Json::MakeObject().Set("file", file).Set("x", x).Set("y", y).Set("bin", bin));
  } else {
    std::printf("%s\n", result == 1 ? name.data() : "(in no bin)");
  }
  return kSuccess;
}

}  // namespace

Command BinCommand() {
  return {"bin",
          "VECFILE X Y",
          3,
          3,
          "the bin of a chromaticity point",
          "Names the first bin of the bin file VECFILE (.vec) that holds the chromaticity\n"
          "point X, Y. A point in no bin is no failure: the answer is \"(in no bin)\", in\n"
          "JSON a null bin.",
          {},
          RunBin};
}

}  // namespace cli
