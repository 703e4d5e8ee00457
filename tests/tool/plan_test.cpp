// zeltocom test: test plans run against a station of two simulated
// analysers, judged by the exit status, the table, the JSON and the files.
#include <gtest/gtest.h>

#include <regex>

#include "tool_run.hpp"

namespace {

// Holds W1 (the simulated light, x 0.33 y 0.42) and R1 (far from it).
constexpr const char* kBins = "W1=0.3000,0.4000;0.3600,0.4000;0.3600,0.4500;0.3000,0.4500\n"
                              "R1=0.2500,0.2500;0.2800,0.2500;0.2800,0.2800;0.2500,0.2800\n";

class PlanTest : public ::testing::Test {
 protected:
  PlanTest() : first_(Analyser("ZP000001", 3)), second_(Analyser("ZP000002")) {
    ports_ = Ports({&first_, &second_});
    std::ofstream(dir_ / "plan_bins.vec") << kBins;
  }
  void SetUp() override { ASSERT_TRUE(dir_.made()) << "no temporary directory"; }

  // A plan of both analysers, all their fibers, with wide limits on lines
  // 8 to 14 and `more` after them.
  std::string WritePlan(const std::string& more, const std::string& second = "ZP000002") {
    const std::string file = dir_ / "plan.toml";
    std::ofstream(file) << R"(name = "front lamp"
station = "line-3"
[[instrument]]
serial = "ZP000001"
fibers = "1-2"
[[instrument]]
serial = ")" << second << R"("
[limits]
x = [0.2, 0.5]
y = [0.2, 0.6]
intensity = [100, 50000]
wavelength = [380, 780]
bins = "plan_bins.vec"
accept = ["W1"]
)" << more;
    return file;
  }

  Outcome Test(std::vector<std::string> args) {
    args.insert(args.begin(), "test");
    return Tool(args, ports_);
  }
  FlatJson TestJson(std::vector<std::string> args, int status) {
    args.insert(args.begin(), "test");
    args.push_back("--json");
    return ToolJson(args, ports_, status);
  }

  zeltosim::SimPort first_;
  zeltosim::SimPort second_;
  const TempDir dir_;
  std::string ports_;
};

TEST_F(PlanTest, WideLimitsPassWithLinearIntensitiesAndTheirScale) {
  // The second reports linear intensities, the first logarithmic ones.
  ASSERT_EQ(Tool({"send", second_.path(), "SETLIN"}, ports_).status, 0);
  const FlatJson json = TestJson({WritePlan(""), "--unit", "U0042"}, 0);
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
  EXPECT_FALSE(json.has("/sequences/0/instrument"));
}

// A window no reading can meet, on fiber 2 of the second analyser, and a
// bin the light is not in, on fiber 1 of the first: only those fail.
TEST_F(PlanTest, AnImpossibleWindowOrBinFailsThatFiberAndNamesTheLimit) {
  const std::string csv = dir_ / "plan.csv";
  const std::string junit = dir_ / "plan.xml";
  const std::string plan =
      WritePlan("[[fiber]]\ninstrument = \"ZP000002\"\nfiber = 2\nintensity = [1, 2]\n"
                "[[fiber]]\ninstrument = \"ZP000001\"\nfiber = 1\naccept = [\"R1\"]\n");
  const FlatJson json = TestJson({plan, "--csv", csv, "--junit", junit}, 1);
  EXPECT_EQ(json["/pass"], "false");
  EXPECT_EQ(json["/instruments/0/fibers/0/failed/0/limit"], "bin");
  EXPECT_EQ(json["/instruments/0/fibers/0/failed/0/value"], "W1");
  EXPECT_EQ(json["/instruments/0/fibers/0/failed/0/window/0"], "R1");
  EXPECT_EQ(json["/instruments/0/fibers/1/pass"], "true");
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

  // Well-formed, four cases, each failure naming its limit.
  const Outcome check = Shell(
      "python3 -c \"import sys, xml.etree.ElementTree as E; r = E.parse(sys.argv[1]).getroot(); "
      "print(r.tag, len(r.findall('.//testcase')), "
      "[f.get('message') for f in r.iter('failure')])\" " +
      junit);
  EXPECT_EQ(check.status, 0) << Slurp(junit);
  EXPECT_TRUE(std::regex_search(
      check.out,
      std::regex(
          "^testsuites 4 \\['bin W1 not in \\[R1\\]', 'intensity [0-9]+ not in \\[1, 2\\]'\\]\n")))
      << check.out;
}

// An instrument that cannot be used, or a result that cannot be written:
// the rest is done all the same.
TEST_F(PlanTest, WhatCannotBeDoneIsStatus3AfterTheRest) {
  const FlatJson json = TestJson({WritePlan("", "ZP999999")}, 3);
  EXPECT_EQ(json["/pass"], "false");
  EXPECT_EQ(json["/instruments/1/serial"], "ZP999999");
  EXPECT_NE(json["/instruments/1/error"].find("ZP999999"), std::string::npos);
  EXPECT_FALSE(json.has("/instruments/1/fibers/0/fiber"));
  EXPECT_EQ(json["/instruments/0/fibers/1/pass"], "true");

  const std::string junit = dir_ / "plan_written.xml";
  const Outcome run =
      Test({WritePlan(""), "--csv", dir_ / "no-such-directory/plan.csv", "--junit", junit});
  EXPECT_EQ(run.status, 3);
  EXPECT_NE(run.err.find("no-such-directory/plan.csv"), std::string::npos) << run.err;
  EXPECT_NE(run.out.find("unit: PASS"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("\033["), std::string::npos) << "colour on a pipe";
  EXPECT_NE(Slurp(junit).find("<testsuites"), std::string::npos);
}

TEST_F(PlanTest, AnInstrumentByPathReadsEveryFiberItHasOrFailsForOneItLacks) {
  const std::string file = dir_ / "plan_path.toml";
  const auto run = [&](const std::string& fibers, int status) {
    std::ofstream(file) << "name = \"by path\"\n[[instrument]]\npath = \"" << first_.path()
                        << "\"\n"
                        << fibers;
    return TestJson({file, "--station", "s7"}, status);
  };
  const FlatJson json = run("", 0);
  EXPECT_EQ(json["/station"], "s7");
  EXPECT_EQ(json["/instruments/0/serial"], "ZP000001");
  EXPECT_EQ(json["/instruments/0/fibers/2/fiber"], "3");
  EXPECT_EQ(json["/instruments/0/fibers/2/bin"], "null");

  const std::string lacking = run("fibers = [2, 4]\n", 3)["/instruments/0/error"];
  EXPECT_NE(lacking.find("fiber 4"), std::string::npos) << lacking;
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
    SCOPED_TRACE(windows);
    const FlatJson json = TestJson(
        {WritePlan("[[sequence]]\ninstrument = \"ZP000002\"\nfiber = 1\n" + windows)}, status);
    EXPECT_EQ(json["/sequences/0/instrument"], "ZP000002");
    if (failed.empty()) {
      EXPECT_NEAR(std::stod(json["/sequences/0/frequency"]), 5, 0.2);
      EXPECT_NEAR(std::stod(json["/sequences/0/duty_cycle"]), 0.5, 0.05);
    } else {
      EXPECT_EQ(json["/sequences/0/failed/0/limit"], failed);
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
    SCOPED_TRACE(more);
    const Outcome run = Test({WritePlan(more)});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(dir_ / named), std::string::npos) << run.err;
  }
  EXPECT_EQ(first_.master().captures() + second_.master().captures(), 0);
  std::ofstream(dir_ / "plan.toml") << "[[instrument]]\nserial = \"ZP000001\"\n";
  EXPECT_NE(Test({dir_ / "plan.toml"}).err.find("plan.toml:1: name: missing"), std::string::npos);
  const Outcome missing = Test({dir_ / "no-such-plan.toml"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.err.find("no-such-plan.toml: No such file"), std::string::npos) << missing.err;
}

}  // namespace
