// Project files and VEC bin files, written to a directory of the test's own.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "bench.hpp"

namespace {

class FilesTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    char pattern[] = "/tmp/zeltocom-files-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::filesystem::remove_all(dir_);
    SimBench::TearDown();
  }
  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  int OpenProject(const std::string& text) {
    return ZeltoCom_OpenProject(Write("station.prj", text).c_str());
  }
  // The bin of (x, y) by the established rule or the exact test, "-" for none, or the error text.
  static std::string BinOf(const std::string& path, float x, float y, bool exact = false) {
    char name[64] = "";
    const int result = exact ? ZeltoCom_Binning_FindBin(path.c_str(), name, sizeof name, x, y)
                             : ZeltoCom_Binning_GetBinFromVECFile(path.c_str(), name, x, y);
    return result == 1 ? name : result == 0 ? "-" : LastError();
  }
  static std::string Section(const std::string& lines) { return "[DEVICE]\n" + lines + "[END]\n"; }

  std::string dir_;
};

TEST_F(FilesTest, BinFilePathsAndContents) {
  const std::string bin = "B1=0.1,0.1;0.1,0.2\n";
  // The path and the file are checked alike by the established rule and the exact test.
  for (const bool exact : {false, true}) {
    SCOPED_TRACE(exact ? "exact" : "established");
    EXPECT_EQ(BinOf(".vec", 0, 0, exact), "Wrong VEC file path");
    EXPECT_EQ(BinOf(Write("bins.txt", bin), 0, 0, exact), "Wrong VEC file extension");
    EXPECT_EQ(BinOf(Write("none.vec", "0.1\n12345\n\n"), 0, 0, exact),
              "VEC file does not contain any bin");
    EXPECT_EQ(BinOf(Write("odd.vec", "B1=0.1,0.1;0.2\n"), 0, 0, exact), "Syntax error in VEC file");
  }
  EXPECT_EQ(BinOf(dir_ + "/missing.vec", 0, 0, true),
            "Unable to open file " + dir_ + "/missing.vec");
  std::string longLine = "B2=";
  for (int i = 0; i < 130; ++i) longLine += "0.1,0.1;";
  EXPECT_EQ(BinOf(Write("long.vec", bin + longLine), 0, 0), "Syntax error in VEC file");
  // Two vertices make a bin, but no ray crosses its two edges just once.
  EXPECT_EQ(BinOf(Write("two.vec", bin), 0.1f, 0.15f), "-");
}

// The exact test where the established rule goes wrong, and on edges and
// corners. The columns: FindBin's answer, then the established one where it
// differs ("-" none).
TEST_F(FilesTest, FindBinHoldsEveryPointOfItsPolygonAndOnlyThose) {
  // The extension in either case.
  const std::string bins = Write(
      "exact.VEC",
      "SQ=0.6,0.1;0.7,0.1;0.7,0.2;0.6,0.2\n"
      // A U whose right arm lies three crossings from the origin.
      "HOOK=0.1,0.2;0.15,0.25;0.225,0.175;0.325,0.275;0.25,0.35;0.35,0.45;0.475,0.325;0.225,0.075\n"
      "TRI=0.5,0.5;0.75,0.5;0.5,0.75;0.5,0.5\n");
  struct Case {
    float x, y;
    std::string exact, established;
  };
  const std::vector<Case> cases = {
      // Inside the rectangle: its crossing is a vertical edge the old rule skips.
      {0.65f, 0.15f, "SQ", "-"},
      // Right of it, outside: the old rule counts the bottom edge alone, and
      // the same opposite it through the origin.
      {0.8f, 0.12f, "-", "SQ"},
      {-0.8f, -0.12f, "-", "SQ"},
      // Concave: the right arm of the hook, its left arm, the gap between.
      {0.36f, 0.36f, "HOOK", "-"},
      {0.175f, 0.175f, "HOOK", ""},
      {0.25f, 0.25f, "-", ""},
      // On edges and corners: inside, whichever way the edge runs.
      {0.7f, 0.15f, "SQ", "-"},
      {0.65f, 0.1f, "SQ", ""},
      {0.6f, 0.2f, "SQ", ""},
      {0.7f, 0.1f, "SQ", ""},
      {0.625f, 0.625f, "TRI", "-"},
      {0.75f, 0.5f, "TRI", ""},
      {0.5f, 0.6f, "TRI", ""},
      // Just beyond an edge.
      {0.626f, 0.626f, "-", ""},
      {0.7001f, 0.15f, "-", ""},
      {0.5f, 0.499f, "-", ""},
  };
  for (const Case& c : cases) {
    const std::string where = std::to_string(c.x) + ", " + std::to_string(c.y);
    EXPECT_EQ(BinOf(bins, c.x, c.y, true), c.exact) << where;
    if (!c.established.empty()) {
      EXPECT_EQ(BinOf(bins, c.x, c.y), c.established) << where;
    }
  }
}

TEST_F(FilesTest, FindBinCutsTheNameAndRefusesWhatItCannotUse) {
  const std::string bins = Write("names.vec", "LONGNAME=0.1,0.1;0.5,0.1;0.5,0.5\n");
  char name[16];
  const auto find = [&](char* buffer, int size, float x = 0.4f, float y = 0.2f) {
    std::memset(name, '#', sizeof name);
    return ZeltoCom_Binning_FindBin(bins.c_str(), buffer, size, x, y);
  };
  for (const auto& [size, text] : {std::pair{5, "LONG"}, {1, ""}, {9, "LONGNAME"}}) {
    EXPECT_EQ(find(name, size), 1);
    EXPECT_STREQ(name, text);
    EXPECT_EQ(name[size], '#');
  }
  EXPECT_EQ(find(name, 16, 0.2f, 0.4f), 0);
  EXPECT_EQ(name[0], '#');

  EXPECT_EQ(Outcome(find(nullptr, 16)), "-1: No buffer given for the result");
  for (int size : {0, -3}) {
    EXPECT_EQ(Outcome(find(name, size)), "-1: The size of the bin name buffer must be at least 1");
    EXPECT_EQ(name[0], '#');
  }
  for (const auto& [x, y] : {std::pair{std::nanf(""), 0.2f}, std::pair{0.4f, INFINITY}}) {
    EXPECT_EQ(Outcome(find(name, 16, x, y)), "-1: The point's x and y must be finite numbers");
    EXPECT_EQ(name[0], '#');
  }
}

// The check lists the bins the established rule can misjudge; the list
// gives each polygon as the test holds it.
TEST_F(FilesTest, CheckAndListTellWhatTheTestHolds) {
  std::string bins = Write(
      "check.vec",
      "SQ=0.6,0.1;0.7,0.1;0.7,0.2;0.6,0.2\n"
      "HOOK=0.1,0.2;0.15,0.25;0.225,0.175;0.325,0.275;0.25,0.35;0.35,0.45;0.475,0.325;0.225,0.075\n"
      "CORNER=0,0;0.5,0.1;0.1,0.5\n"
      "LINE=0.1,0.1;0.2,0.2;0.3,0.3\n"
      "0.2,0.8;0.25,0.85;0.3,0.8\n");
  char text[512];
  EXPECT_EQ(ZeltoCom_Binning_CheckVECFile(bins.c_str(), text, sizeof text), 4) << LastError();
  EXPECT_STREQ(text, "SQ: an edge parallel or nearly parallel to the y axis\n"
                     "HOOK: not convex\n"
                     "CORNER: holds the origin\n"
                     "LINE: no area (its corners lie on one line)");
  EXPECT_EQ(ZeltoCom_Binning_CheckVECFile(bins.c_str(), text, 8), 4);
  EXPECT_STREQ(text, "SQ: an ");
  EXPECT_EQ(Outcome(ZeltoCom_Binning_CheckVECFile(bins.c_str(), text, 0)),
            "-1: The size of the report buffer must be at least 1");
  EXPECT_EQ(ZeltoCom_Binning_CheckVECFile(Write("fine.vec", "0.3,0.2;0.4,0.3;0.25,0.4\n").c_str(),
                                          text, sizeof text),
            0);
  EXPECT_STREQ(text, "");

  // Short lines hold no bin; an unnamed bin is named for its place; a
  // corner is written as the float the test uses, beyond its range "inf".
  bins = Write("list.vec", "W1=0.3,0.3;0.25,0.3;0.25,0.5\n"
                           "x\n"
                           "0.1,0.2;0.30000001,0.2;0.2,0.5\r\n"
                           "=1" +
                               std::string(40, '0') + ",0;0.5,0.5\n");
  EXPECT_EQ(ZeltoCom_Binning_ListBins(bins.c_str(), text, sizeof text), 3) << LastError();
  EXPECT_STREQ(text, "W1=0.3,0.3;0.25,0.3;0.25,0.5\nArea 2=0.1,0.2;0.3,0.2;0.2,0.5\n"
                     "=inf,0;0.5,0.5");
  EXPECT_EQ(ZeltoCom_Binning_ListBins(bins.c_str(), text, 5), 3);
  EXPECT_STREQ(text, "W1=0");
  EXPECT_EQ(Outcome(ZeltoCom_Binning_ListBins(bins.c_str(), text, 0)),
            "-1: The size of the list buffer must be at least 1");
  EXPECT_EQ(Outcome(ZeltoCom_Binning_ListBins(bins.c_str(), nullptr, 8)),
            "-1: No buffer given for the result");
  EXPECT_EQ(Outcome(ZeltoCom_Binning_ListBins(Write("odd.vec", "B1=0.1,0.1;0.2\n").c_str(), text,
                                              sizeof text)),
            "-1: Syntax error in VEC file");
}

TEST_F(FilesTest, ProjectSectionErrorsInCheckingOrder) {
  const std::string master = Section("PORT=/dev/a\nID=A\nSERIALNUMBER=S1\n");
  const std::pair<std::string, std::string> cases[] = {
      // Keys are matched as written: "PORT " is no key.
      {Section("ID=A\nSERIALNUMBER=S1\nPORT =/dev/a\n"), "Syntax Error. Port not set."},
      {Section("PORT=/dev/a\nSERIALNUMBER=S1\n"), "Syntax Error. ID not set."},
      {Section("PORT=/dev/a\nID=A\n"), "Syntax Error. SN not set."},
      {master + Section("PORT=/dev/b\nID=A\nSERIALNUMBER=S2\nROLE=daisy-chain\n"),
       "This ID has already been added"},
      {master + Section("PORT=/dev/a\nID=B\nSERIALNUMBER=S2\nROLE=master\n"),
       "Master has been previously added for this port"},
      {Section("PORT=/dev/a\nID=B\nSERIALNUMBER=S2\nROLE=Daisy_Chain\n") + master,
       "No Bus Master has been previously added for this port"},
      {"# " + std::string(1100, '#') + "\n" + master,
       "Syntax Error. Line longer than 1023 characters."},
      {master + "[DEVICE]\nPORT=/dev/b\n", "Missing[END]"},
  };
  for (const auto& [text, error] : cases) {
    EXPECT_EQ(OpenProject(text), -1) << error;
    EXPECT_EQ(LastError(), error);
  }
  // What was read before the error stays known; nothing was opened.
  char path[256];
  EXPECT_STREQ(ZeltoCom_GetPortByID("A", path), "/dev/a");

  EXPECT_EQ(Outcome(OpenProject("# no devices\n\n[END]\nPORT=/dev/a\n")), "0: No devices found");
  EXPECT_EQ(Outcome(ZeltoCom_CloseProject()), "0: No devices found");
}

// All or none: an instrument that does not open closes the others again.
TEST_F(FilesTest, AProjectOpensAndClosesAllItsInstrumentsOrNone) {
  zeltosim::SimPort& left = AddPort(Analyser("ZS0001"));
  left.chain(Analyser("ZS0003"));
  zeltosim::SimPort& right = AddPort(Analyser("ZS0002"));
  Publish();
  const std::string masters =
      "# station 4\r\n\r\n[DEVICE]\r\nPORT=" + left.path() + "\r\nID=LEFT\r\n# fixed rate\r\n" +
      "BAUDRATE=" + std::to_string(left.baud()) + "\r\nSERIALNUMBER=ZS0001\r\n[END]\r\n" +
      Section("DEVPATH=" + right.path() + "\nID=RIGHT\nSERIALNUMBER=ZS0002\n");
  const std::string chained = "PORT=" + left.path() + "\nROLE=DAISY-CHAIN\nID=C";
  EXPECT_EQ(OpenProject(masters + Section(chained + "\nSERIALNUMBER=ZS0003\n") +
                        Section(chained + "2\nSERIALNUMBER=NOBODY\n")),
            -1);
  EXPECT_EQ(LastError(), "Communication error");
  EXPECT_FALSE(IsOpen(left));
  EXPECT_FALSE(IsOpen(right));
  EXPECT_EQ(OpenProject(masters + Section("PORT=/dev/pts/none\nID=C\nSERIALNUMBER=ZS0004\n")), -1);
  EXPECT_EQ(LastError(), "Device Path not available");
  EXPECT_FALSE(IsOpen(left));

  const std::string project =
      masters + Section("PORT=" + left.path() + "\nID=C\nSERIALNUMBER=ZS0003\nROLE=DaisyChain\n");
  ASSERT_EQ(OpenProject(project), 1) << LastError();
  EXPECT_EQ(zeltocom::PortsList_Count(&Record(left)->chain), 1);
  char answer[64];
  EXPECT_EQ(ZeltoCom_SendByID("RIGHT", "GETSERIAL", answer), 1);
  EXPECT_STREQ(answer, "ZS0002");
  EXPECT_EQ(ZeltoCom_CloseProject(), 1);
  EXPECT_FALSE(IsOpen(left));
  EXPECT_FALSE(IsOpen(right));
  // The IDs stay known, and closing again finds the ports closed.
  EXPECT_EQ(Outcome(ZeltoCom_CloseProject()), "0: The device path is not in use");
}

}  // namespace
