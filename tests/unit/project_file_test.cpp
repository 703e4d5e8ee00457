#include "api/project.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

using namespace zeltocom;

namespace {

std::string Section(const std::string& port, const std::string& id, const std::string& role) {
  return "[DEVICE]\nPORT=" + port + "\nID=" + id + "\nSERIALNUMBER=S" + id + "\nROLE=" + role +
         "\n[END]\n";
}

// Masters on ports of their own, each followed by one chained device.
std::string Sections(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    const std::string master = std::to_string(i - i % 2);
    text += i % 2 == 0 ? Section("/dev/m" + master, "M" + master, "MASTER")
                       : Section("/dev/m" + master, "C" + std::to_string(i), "DAISY-CHAIN");
  }
  return text;
}

// Seconds to read `text` once.
double ReadSeconds(const std::string& text) {
  const auto start = std::chrono::steady_clock::now();
  const ProjectFile file = ReadProjectFile(text);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(file.error, "");
  return took.count();
}

}  // namespace

// 32 times the sections take 32 times as long when each section is checked
// in constant time (up to about 100 times as the rows outgrow the processor's
// caches), 1024 times when it is compared with every row before it. The
// reader is measured against itself, so the bound holds under sanitizers
// and on a busy machine alike.
TEST(ProjectFileReading, GrowsLinearlyWithTheNumberOfSections) {
  const std::string small = Sections(1000);
  const std::string large = Sections(32000);
  // The least of five tries each, taken in turn so that both meet the same load.
  double smallSeconds = 1e9;
  double largeSeconds = 1e9;
  for (int i = 0; i < 5; ++i) {
    smallSeconds = std::min(smallSeconds, ReadSeconds(small));
    largeSeconds = std::min(largeSeconds, ReadSeconds(large));
  }
  EXPECT_LT(largeSeconds, 320 * smallSeconds);

  // The checks still see the first rows from the last sections.
  const ProjectFile valid = ReadProjectFile(small);
  ASSERT_EQ(valid.rows.size(), 1000u);
  EXPECT_TRUE(valid.rows.back().chained);
  const ProjectFile duplicateId = ReadProjectFile(small + Section("/dev/m0", "C1", "DAISY-CHAIN"));
  EXPECT_EQ(duplicateId.error, "This ID has already been added");
  const ProjectFile secondMaster = ReadProjectFile(small + Section("/dev/m2", "X", "MASTER"));
  EXPECT_EQ(secondMaster.error, "Master has been previously added for this port");
}
