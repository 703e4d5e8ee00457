// zeltocom test: test plans run against a station of two simulated
// analysers, judged by the exit status, the table, the JSON and the files.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tool_run.hpp"

namespace {

// Holds W1 (the simulated light, x 0.33 y 0.42) and R1 (far from it).
constexpr const char* kBins = "W1=0.3000,0.4000;0.3600,0.4000;0.3600,0.4500;0.3000,0.4500\n"
                              "R1=0.2500,0.2500;0.2800,0.2500;0.2800,0.2800;0.2500,0.2800\n";

std::string Slurp(const std::string& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A directory of its own for each test, as ctest runs them side by side;
// empty when none could be made.
std::string FreshDirectory() {
  std::string pattern = ::testing::TempDir() + "plan_test.XXXXXX";
  return mkdtemp(pattern.data()) == nullptr ? std::string() : pattern + "/";
}

class PlanTest : public ::testing::Test {
 protected:
  PlanTest()
      : first_(Analyser("ZP000001", 3)), second_(Analyser("ZP000002")), dir_(FreshDirectory()) {
    ports_ = Ports({&first_, &second_});
    std::ofstream(dir_ + "plan_bins.vec") << kBins;
  }
  ~PlanTest() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  void SetUp() override { ASSERT_FALSE(dir_.empty()) << "no temporary directory"; }

  // A plan of both analysers, all their fibers, with wide limits and `more`
  // after them.
  std::string WritePlan(const std::string& more, const std::string& second = "ZP000002") {
    const std::string file = dir_ + "plan.toml";
    std::ofstream(file) << "name = \"front lamp\"\n"
                           "station = \"line-3\"\n"
                           "[[instrument]]\n"
                           "serial = \"ZP000001\"\n"
                           "fibers = \"1-2\"\n"
                           "[[instrument]]\n"
                           "serial = \""
                        << second
                        << "\"\n"
                           "[limits]\n"
                           "x = [0.2, 0.5]\n"
                           "y = [0.2, 0.6]\n"
                           "intensity = [100, 50000]\n"
                           "wavelength = [380, 780]\n"
                           "bins = \"plan_bins.vec\"\n"
                           "accept = [\"W1\"]\n"
                        << more;
    return file;
  }

  Outcome Test(const std::vector<std::string>& args) {
    std::vector<std::string> words = {"test"};
    words.insert(words.end(), args.begin(), args.end());
    return Tool(words, ports_);
  }

  zeltosim::SimPort first_;
  zeltosim::SimPort second_;
  const std::string dir_;
  std::string ports_;
};

TEST_F(PlanTest, WideLimitsPassWithLinearIntensitiesAndTheirScale) {
  // The second reports linear intensities, the first logarithmic ones.
  ASSERT_EQ(Tool({"send", second_.path(), "SETLIN"}, ports_).status, 0);
  const Outcome run = Test({WritePlan(""), "--unit", "U0042", "--json"});
  ASSERT_EQ(run.status, 0) << run.err << run.out;
  const FlatJson json(run.out);
  ASSERT_TRUE(json.valid()) << run.out;
  EXPECT_EQ(json["/format"], "1");
  EXPECT_EQ(json["/plan"], "front lamp");
  EXPECT_EQ(json["/unit"], "U0042");
  EXPECT_EQ(json["/station"], "line-3");
  EXPECT_EQ(json["/pass"], "true");
  EXPECT_EQ(json["/instruments/1/path"], second_.path());
  EXPECT_EQ(json["/instruments/1/model"], "Zelto 05-P");
  EXPECT_EQ(json["/instruments/1/error"], "null");
  for (const char* instrument : {"0", "1"}) {
    const std::string fiber = std::string("/instruments/") + instrument + "/fibers/1/";
    EXPECT_EQ(json[fiber + "fiber"], "2");
    EXPECT_EQ(json[fiber + "bin"], "W1");
    EXPECT_NEAR(std::stod(json[fiber + "intensity/linear"]), 1200, 2) << instrument;
  }
  EXPECT_EQ(json["/instruments/0/fibers/0/intensity/scale"], "logarithmic");
  EXPECT_EQ(json["/instruments/0/fibers/0/intensity/raw"], "16411");
  EXPECT_EQ(json["/instruments/1/fibers/0/intensity/scale"], "linear");
  EXPECT_EQ(json["/instruments/1/fibers/0/intensity/raw"], "1200");
  EXPECT_FALSE(json.has("/sequences"));

  const Outcome table = Test({WritePlan("")});
  EXPECT_EQ(table.status, 0) << table.err;
  EXPECT_NE(table.out.find("unit: PASS"), std::string::npos) << table.out;
  EXPECT_EQ(table.out.find("\033["), std::string::npos) << "colour on a pipe";
}

// A window no reading can meet, on fiber 2 of the second analyser only.
TEST_F(PlanTest, AnImpossibleWindowFailsThatFiberAndNamesTheLimit) {
  const std::string csv = dir_ + "plan.csv";
  const std::string junit = dir_ + "plan.xml";
  const std::string plan =
      WritePlan("[[fiber]]\ninstrument = \"ZP000002\"\nfiber = 2\nintensity = [1, 2]\n");
  const Outcome run = Test({plan, "--json", "--csv", csv, "--junit", junit});
  ASSERT_EQ(run.status, 1) << run.err << run.out;
  const FlatJson json(run.out);
  ASSERT_TRUE(json.valid()) << run.out;
  EXPECT_EQ(json["/pass"], "false");
  EXPECT_EQ(json["/instruments/1/fibers/0/pass"], "true");
  EXPECT_EQ(json["/instruments/1/fibers/1/pass"], "false");
  EXPECT_EQ(json["/instruments/1/fibers/1/failed/0/limit"], "intensity");
  EXPECT_EQ(json["/instruments/1/fibers/1/failed/0/window/1"], "2");
  EXPECT_FALSE(json.has("/instruments/1/fibers/1/failed/1/limit"));

  const Outcome table = Test({plan});
  EXPECT_EQ(table.status, 1);
  EXPECT_TRUE(std::regex_search(table.out, std::regex("ZP000002 +2 .*FAIL intensity 1[0-9]+ not "
                                                      "in \\[1, 2\\]")))
      << table.out;
  EXPECT_NE(table.out.find("unit: FAIL"), std::string::npos) << table.out;

  // A header and one row per fiber, the failing one naming its limit.
  const std::string rows = Slurp(csv);
  EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'), 5) << rows;
  EXPECT_EQ(rows.rfind("unit,plan,serial,fiber,", 0), 0U) << rows;
  EXPECT_NE(rows.find(",front lamp,ZP000002,2,"), std::string::npos) << rows;
  EXPECT_NE(rows.find(",false,\"intensity 1200 not in [1, 2]\""), std::string::npos) << rows;

  // Well-formed, four cases, the one failure naming the limit.
  const std::string check = "python3 -c \"import sys, xml.etree.ElementTree as E; "
                            "r = E.parse(sys.argv[1]).getroot(); "
                            "print(r.tag, len(r.findall('.//testcase')), "
                            "[f.get('message') for f in r.iter('failure')])\" " +
                            junit;
  FILE* pipe = popen(check.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  char line[512] = "";
  const bool read = std::fgets(line, sizeof line, pipe) != nullptr;
  EXPECT_EQ(pclose(pipe), 0) << Slurp(junit);
  ASSERT_TRUE(read);
  EXPECT_TRUE(std::regex_search(line, std::regex("^testsuites 4 \\['intensity [0-9]+ not in "
                                                 "\\[1, 2\\]'\\]")))
      << line;
}

TEST_F(PlanTest, BinsOutsideTheAcceptedOnesFail) {
  const Outcome run = Test({WritePlan("[[fiber]]\ninstrument = \"ZP000001\"\nfiber = 1\n"
                                      "accept = [\"R1\"]\n"),
                            "--json"});
  ASSERT_EQ(run.status, 1) << run.err;
  const FlatJson json(run.out);
  EXPECT_EQ(json["/instruments/0/fibers/0/failed/0/limit"], "bin");
  EXPECT_EQ(json["/instruments/0/fibers/0/failed/0/value"], "W1");
  EXPECT_EQ(json["/instruments/0/fibers/0/failed/0/window/0"], "R1");
  EXPECT_EQ(json["/instruments/0/fibers/1/pass"], "true");
}

TEST_F(PlanTest, AnInstrumentThatCannotBeUsedIsStatus3AndTheOthersAreStillRead) {
  const Outcome run = Test({WritePlan("", "ZP999999"), "--json"});
  EXPECT_EQ(run.status, 3) << run.err;
  const FlatJson json(run.out);
  ASSERT_TRUE(json.valid()) << run.out;
  EXPECT_EQ(json["/pass"], "false");
  EXPECT_EQ(json["/instruments/1/serial"], "ZP999999");
  EXPECT_NE(json["/instruments/1/error"].find("ZP999999"), std::string::npos);
  EXPECT_FALSE(json.has("/instruments/1/fibers/0/fiber"));
  EXPECT_EQ(json["/instruments/0/fibers/1/pass"], "true");
}

TEST_F(PlanTest, AResultThatCannotBeWrittenIsStatus3AfterTheOthers) {
  const std::string junit = dir_ + "plan_written.xml";
  std::remove(junit.c_str());
  const Outcome run =
      Test({WritePlan(""), "--csv", dir_ + "no-such-directory/plan.csv", "--junit", junit});
  EXPECT_EQ(run.status, 3);
  EXPECT_NE(run.err.find("no-such-directory/plan.csv"), std::string::npos) << run.err;
  EXPECT_NE(run.out.find("unit: PASS"), std::string::npos) << run.out;
  EXPECT_NE(Slurp(junit).find("<testsuites"), std::string::npos);
}

TEST_F(PlanTest, AnInstrumentByPathReadsEveryFiberItHasOrFailsForOneItLacks) {
  const std::string file = dir_ + "plan_path.toml";
  const auto run = [&](const std::string& fibers) {
    std::ofstream(file) << "name = \"by path\"\n[[instrument]]\npath = \"" << first_.path()
                        << "\"\n"
                        << fibers;
    return Test({file, "--json", "--station", "s7"});
  };
  const Outcome all = run("");
  EXPECT_EQ(all.status, 0) << all.err;
  const FlatJson json(all.out);
  EXPECT_EQ(json["/station"], "s7");
  EXPECT_EQ(json["/instruments/0/serial"], "ZP000001");
  EXPECT_EQ(json["/instruments/0/fibers/2/fiber"], "3");
  EXPECT_EQ(json["/instruments/0/fibers/2/bin"], "null");

  const Outcome lacking = run("fibers = [2, 4]\n");
  EXPECT_EQ(lacking.status, 3);
  EXPECT_NE(FlatJson(lacking.out)["/instruments/0/error"].find("fiber 4"), std::string::npos)
      << lacking.out;
}

// A light blinking at 5 Hz, half the time lit, on fiber 1 of the second
// analyser, checked with windows it meets and one it does not.
TEST_F(PlanTest, SequenceChecksMeasureTheBlinkingInTheirWindow) {
  second_.master().setLight(0, zeltosim::Light::Blinking(5, 50));
  const struct {
    std::string windows;
    int status;
    std::string failed;  // the first failed limit
  } cases[] = {
      {"frequency = [4, 6]\nduty_cycle = [0.4, 0.6]\n", 0, ""},
      {"frequency = [4, 6]\nduty_cycle = [0.7, 0.9]\n", 1, "duty_cycle"},
      {"frequency = [20, 30]\n", 1, "frequency"},
  };
  for (const auto& [windows, status, failed] : cases) {
    const Outcome run = Test(
        {WritePlan("[[sequence]]\ninstrument = \"ZP000002\"\nfiber = 1\n" + windows), "--json"});
    EXPECT_EQ(run.status, status) << windows << run.err;
    const FlatJson json(run.out);
    EXPECT_EQ(json["/sequences/0/instrument"], "ZP000002");
    if (failed.empty()) {
      EXPECT_NEAR(std::stod(json["/sequences/0/frequency"]), 5, 0.2) << run.out;
      EXPECT_NEAR(std::stod(json["/sequences/0/duty_cycle"]), 0.5, 0.05) << run.out;
    } else {
      EXPECT_EQ(json["/sequences/0/failed/0/limit"], failed) << windows << run.out;
    }
  }
}

// Each bad plan names its file, the line and the key, and touches no
// instrument.
TEST_F(PlanTest, ABadPlanNamesItsLineAndKey) {
  const struct {
    std::string more;
    std::string named;
  } cases[] = {
      {"intensty = [1, 2]\n", "plan.toml:15: limits.intensty: unknown key"},
      {"x = [0, 1]\n", "plan.toml:15:"},  // x twice: toml++ tells
      {"[[fiber]]\ninstrument = \"ZP000001\"\nfiber = 2\nx = [0.4, 0.3]\n",
       "plan.toml:18: fiber.x: expected [low, high]"},
      {"[[fiber]]\ninstrument = \"ZX1\"\nfiber = 1\n", "plan.toml:16: fiber.instrument: ZX1 is no"},
      {"[[fiber]]\ninstrument = \"ZP000001\"\nfiber = 3\n", "plan.toml:17: fiber.fiber: fiber 3"},
      {"[[sequence]]\nfiber = 1\nfrequency = [0, 5]\ninstrument = \"ZP000001\"\n",
       "plan.toml:17: sequence.frequency: must be above 0 Hz"},
      {"[[instrument]]\nfibers = \"3-1\"\npath = \"/dev/null\"\n",
       "plan.toml:16: instrument.fibers: \"3-1\": 3-1 runs backwards"},
      {"[[fiber]]\ninstrument = \"ZP000001\"\nfiber = 1\naccept = \"W1\"\n",
       "plan.toml:18: fiber.accept: expected a list of bin names"},
  };
  for (const auto& [more, named] : cases) {
    const Outcome run = Test({WritePlan(more)});
    EXPECT_EQ(run.status, 2) << more;
    EXPECT_NE(run.err.find(dir_ + named), std::string::npos) << more << run.err;
  }
  EXPECT_EQ(first_.master().captures() + second_.master().captures(), 0);
  std::ofstream(dir_ + "plan.toml") << "[[instrument]]\nserial = \"ZP000001\"\n";
  EXPECT_NE(Test({dir_ + "plan.toml"}).err.find("plan.toml:1: name: missing"), std::string::npos);
  const Outcome missing = Test({dir_ + "no-such-plan.toml"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.err.find("no-such-plan.toml: No such file"), std::string::npos) << missing.err;
}

}  // namespace
