// zeltocom bin: the bin of a chromaticity point in a bin file, and the bins
// whose shape the established one-crossing rule can misjudge.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// No bin name is longer than the file that holds it.
int NameRoom(const std::string& file) {
  struct stat status {};
  const bool sized = stat(file.c_str(), &status) == 0 && status.st_size > 0;
  return sized && status.st_size < (1 << 24) ? static_cast<int>(status.st_size) + 256 : 256;
}

Json BinOrNull(int result, const std::vector<char>& name) {
  return result == 1 ? Json(std::string(name.data())) : Json();
}

struct BinOptions {
  std::string file;
  std::vector<std::string> point;  // X Y
  bool check = false;
};

int RunPoint(const BinOptions& options) {
  const std::string& file = options.file;
  const double x = ParseNumber(options.point[0], "X");
  const double y = ParseNumber(options.point[1], "Y");
  const int room = NameRoom(file);
  std::vector<char> exact(static_cast<std::size_t>(room), '\0');
  std::vector<char> established(static_cast<std::size_t>(room), '\0');
  const int found = ZeltoCom_Binning_FindBin(file.c_str(), exact.data(), room,
                                             static_cast<float>(x), static_cast<float>(y));
  if (found == -1) UsageError(file + ": " + LastError());
  const int oneCrossing = ZeltoCom_Binning_GetBinFromVECFile(
      file.c_str(), established.data(), static_cast<float>(x), static_cast<float>(y));
  const Json bin = BinOrNull(found, exact);
  const Json other = BinOrNull(oneCrossing, established);
  const bool agree =
      found == oneCrossing && (found != 1 || std::strcmp(exact.data(), established.data()) == 0);
  if (JsonWanted()) {
    PrintJson({{"file", file},
               {"x", x},
               {"y", y},
               {"bin", bin},
               {"one_crossing_bin", other},
               {"rules_agree", agree}});
    return kSuccess;
  }
  std::printf("%s\n", found == 1 ? exact.data() : "(in no bin)");
  if (!agree) {
    std::fprintf(stderr,
                 "note: the one-crossing rule of ZeltoCom_Binning_GetBinFromVECFile answers %s\n",
                 oneCrossing == 1 ? established.data() : "(in no bin)");
  }
  return kSuccess;
}

// The library's report, in a buffer that grows until the report fits.
std::string RiskReport(const std::string& file, int& listed) {
  for (std::size_t room = 4096;; room *= 4) {
    std::vector<char> report(room, '\0');
    listed = ZeltoCom_Binning_CheckVECFile(file.c_str(), report.data(), static_cast<int>(room));
    if (listed == -1) UsageError(file + ": " + LastError());
    const std::size_t length = std::strlen(report.data());
    if (length + 1 < room || room > (std::size_t{1} << 28))
      return std::string(report.data(), length);
  }
}

// "NAME: reason; reason", the name being all before the last ": ".
Json RiskRow(const std::string& line) {
  const std::size_t colon = line.rfind(": ");
  Json reasons = Json::array();
  std::size_t start = colon + 2;
  while (start <= line.size()) {
    std::size_t end = line.find("; ", start);
    if (end == std::string::npos) end = line.size();
    reasons.push_back(line.substr(start, end - start));
    start = end + 2;
  }
  return {{"bin", line.substr(0, colon)}, {"reasons", reasons}};
}

int RunCheck(const BinOptions& options) {
  const std::string& file = options.file;
  int listed = 0;
  const std::string report = RiskReport(file, listed);
  if (JsonWanted()) {
    Json bins = Json::array();
    std::size_t start = 0;
    for (int i = 0; i < listed; ++i) {
      std::size_t end = report.find('\n', start);
      if (end == std::string::npos) end = report.size();
      bins.push_back(RiskRow(report.substr(start, end - start)));
      start = end + 1;
    }
    PrintJson({{"file", file}, {"bins", bins}});
  } else {
    std::printf("%s\n", listed > 0 ? report.c_str() : "(no bin at risk)");
  }
  return kSuccess;
}

int RunBin(const BinOptions& options) {
  if (options.check) {
    if (!options.point.empty()) UsageError("--check takes the VECFILE alone");
    return RunCheck(options);
  }
  if (options.point.size() != 2) UsageError("missing X Y");
  return RunPoint(options);
}

}  // namespace

Subcommand AddBin(CLI::App& root) {
  auto options = std::make_shared<BinOptions>();
  CLI::App* app = root.add_subcommand("bin", "the bin of a chromaticity point");
  app->footer("Names the first bin of the bin file VECFILE (.vec) that holds the chromaticity\n"
              "point X, Y: inside its polygon, or on an edge. A point in no bin is no failure:\n"
              "the answer is \"(in no bin)\", in JSON a null bin. When the established\n"
              "one-crossing rule (ZeltoCom_Binning_GetBinFromVECFile) answers otherwise, a\n"
              "note on stderr says so (in JSON: one_crossing_bin, rules_agree).\n"
              "With --check, lists the bins whose shape that rule can misjudge, with why.");
  AddOperand(*app, "VECFILE", options->file, "the bin file")->required();
  AddOperands(*app, "X Y", options->point, "the point's chromaticity")->expected(0, 2);
  app->add_flag("-c,--check", options->check, "list the bins the one-crossing rule can misjudge");
  return {app, [options] { return RunBin(*options); }};
}

}  // namespace cli
