// Project files and VEC bin files, written to a directory of the test's own.
#include <cstdlib>
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
  // The bin of (x, y), "-" for none, or the error text.
  static std::string BinOf(const std::string& path, float x, float y) {
    char name[64] = "";
    const int result = ZeltoCom_Binning_GetBinFromVECFile(path.c_str(), name, x, y);
    return result == 1 ? name : result == 0 ? "-" : LastError();
  }
  static std::string Section(const std::string& lines) { return "[DEVICE]\n" + lines + "[END]\n"; }

  std::string dir_;
};

TEST_F(FilesTest, APointIsInTheFirstBinWhoseEdgesItsRayCrossesExactlyOnce) {
  // Unnamed bins are numbered by their place among the bins: a diamond closed
  // by repeating its first vertex, and a triangle around everything. HOOK is
  // a U whose right arm lies three crossings from the origin; SQ a square.
  const std::string bins = Write("bins.VEC",
      "0.3,0.2;0.4,0.3;0.3,0.4;0.2,0.3;0.3,0.2\r\n"
      "0.1\n"
      "HOOK=0.1,0.2;0.15,0.25;0.225,0.175;0.325,0.275;0.25,0.35;0.35,0.45;0.475,0.325;0.225,0.075\n"
      "SQ=0.6,0.1;0.7,0.1;0.7,0.2;0.6,0.2\n"
      "0.1,0.05;0.9,0.1;0.4,0.9");
  EXPECT_EQ(BinOf(bins, 0.3f, 0.3f), "Area 1");
  EXPECT_EQ(BinOf(bins, 0.175f, 0.175f), "HOOK");
  EXPECT_EQ(BinOf(bins, 0.36f, 0.36f), "Area 4");
  // Right of the square: its vertical edges never count, the bottom one does.
  EXPECT_EQ(BinOf(bins, 0.8f, 0.12f), "SQ");
  // The ray is open beyond the origin: the point opposite finds SQ as well.
  EXPECT_EQ(BinOf(bins, -0.8f, -0.12f), "SQ");
  EXPECT_EQ(BinOf(bins, 0.95f, 0.95f), "-");
}

TEST_F(FilesTest, BinFilePathsAndContents) {
  const std::string bin = "B1=0.1,0.1;0.1,0.2\n";
  EXPECT_EQ(BinOf(".vec", 0, 0), "Wrong VEC file path");
  EXPECT_EQ(BinOf(Write("bins.txt", bin), 0, 0), "Wrong VEC file extension");
  EXPECT_EQ(BinOf(Write("none.vec", "0.1\n12345\n\n"), 0, 0), "VEC file does not contain any bin");
  EXPECT_EQ(BinOf(Write("odd.vec", "B1=0.1,0.1;0.2\n"), 0, 0), "Syntax error in VEC file");
  std::string longLine = "B2=";
  for (int i = 0; i < 130; ++i) longLine += "0.1,0.1;";
  EXPECT_EQ(BinOf(Write("long.vec", bin + longLine), 0, 0), "Syntax error in VEC file");
  // Two vertices make a bin, but no ray crosses its two edges just once.
  EXPECT_EQ(BinOf(Write("two.vec", bin), 0.1f, 0.15f), "-");
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
      {"# " + std::string(1100, '#') + "\n" + master, "Syntax Error. Line longer than 1023 characters."},
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

TEST_F(FilesTest, AProjectOpensAndClosesItsInstruments) {
  zeltosim::SimPort& left = AddPort(Analyser("ZS0001"));
  left.chain(Analyser("ZS0003"));
  zeltosim::SimPort& right = AddPort(Analyser("ZS0002"));
  Publish();
  const std::string project =
      "# station 4\r\n\r\n[DEVICE]\r\nPORT=" + left.path() + "\r\nID=LEFT\r\n# fixed rate\r\n" +
      "BAUDRATE=" + std::to_string(left.baud()) + "\r\nSERIALNUMBER=ZS0001\r\n[END]\r\n" +
      Section("DEVPATH=" + right.path() + "\nID=RIGHT\nSERIALNUMBER=ZS0002\n") +
      Section("PORT=" + left.path() + "\nID=CHAINED\nSERIALNUMBER=ZS0003\nROLE=DaisyChain\n");
  ASSERT_EQ(OpenProject(project), 1) << LastError();
  EXPECT_EQ(zeltocom::PortsList_Count(&Record(left)->chain), 1);
  char answer[64];
  EXPECT_EQ(ZeltoCom_SendByID("RIGHT", "GETSERIAL", answer), 1);
  EXPECT_STREQ(answer, "ZS0002");

  EXPECT_EQ(ZeltoCom_CloseProject(), 1);
  EXPECT_EQ(Record(left), nullptr);
  EXPECT_EQ(Record(right), nullptr);
  // The IDs stay known, and closing again finds the ports closed.
  EXPECT_EQ(Outcome(ZeltoCom_CloseProject()), "0: The device path is not in use");
}

TEST_F(FilesTest, AnInstrumentThatDoesNotOpenClosesTheOthersAgain) {
  zeltosim::SimPort& first = AddPort(Analyser("ZS0001"));
  first.chain(Analyser("ZS0003"));
  zeltosim::SimPort& second = AddPort(Analyser("ZS0002"));
  Publish();
  const std::string masters = Section("PORT=" + first.path() + "\nID=A\nSERIALNUMBER=ZS0001\n") +
                              Section("PORT=" + second.path() + "\nID=B\nSERIALNUMBER=ZS0002\n");
  const std::string chained = "PORT=" + first.path() + "\nROLE=DAISY-CHAIN\nID=C";
  EXPECT_EQ(OpenProject(masters + Section(chained + "\nSERIALNUMBER=ZS0003\n") +
                        Section(chained + "2\nSERIALNUMBER=NOBODY\n")),
            -1);
  EXPECT_EQ(LastError(), "Communication error");
  EXPECT_EQ(Record(first), nullptr);
  EXPECT_EQ(Record(second), nullptr);

  EXPECT_EQ(OpenProject(masters + Section("PORT=/dev/pts/none\nID=C\nSERIALNUMBER=ZS0004\n")), -1);
  EXPECT_EQ(LastError(), "Device Path not available");
  EXPECT_EQ(Record(first), nullptr);
}

}  // namespace
