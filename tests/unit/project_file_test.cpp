#include "api/project.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

using namespace zeltocom;

namespace {

std::string Section(const std::string& port, const std::string& id, const std::string& role) {
  return "[DEVICE]\nPORT=" + port + "\nID=" + id + "\nSERIALNUMBER=S" + id + "\nROLE=" + role +
         "\n[END]\n";
}

}  // namespace

// 100,000 sections, each checked against all before it: a reader that
// compares every section with every row would need minutes; one that keeps
// what the rows claim needs well under a second. The bound leaves room for
// sanitizers and a busy machine.
TEST(ProjectFileReading, GrowsLinearlyWithTheNumberOfSections) {
  constexpr int kSections = 100000;
  std::string text = Section("/dev/m0", "M0", "MASTER");
  for (int i = 1; i < kSections; ++i) {
    const std::string n = std::to_string(i);
    text += i % 2 == 0 ? Section("/dev/m" + n, "M" + n, "MASTER")
                       : Section("/dev/m" + std::to_string(i - 1), "C" + n, "DAISY-CHAIN");
  }
  const std::string lastTwo = Section("/dev/m0", "C1", "DAISY-CHAIN") +
                              Section("/dev/m2", "X", "MASTER");
  const auto start = std::chrono::steady_clock::now();
  const ProjectFile valid = ReadProjectFile(text);
  const ProjectFile duplicateId = ReadProjectFile(text + lastTwo);
  const ProjectFile secondMaster = ReadProjectFile(text + lastTwo.substr(lastTwo.find("[END]") + 6));
  const auto elapsed = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(valid.error, "");
  ASSERT_EQ(valid.rows.size(), static_cast<std::size_t>(kSections));
  EXPECT_TRUE(valid.rows.back().chained);
  // The checks still see the first rows from the last sections.
  EXPECT_EQ(duplicateId.error, "This ID has already been added");
  EXPECT_EQ(duplicateId.rows.size(), static_cast<std::size_t>(kSections));
  EXPECT_EQ(secondMaster.error, "Master has been previously added for this port");
  EXPECT_LT(elapsed, std::chrono::seconds(30));
}
