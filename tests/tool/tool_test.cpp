// The zeltocom tool as a user runs it: a child process against simulated
// instruments, judged by its output, its JSON and its exit status.
#include <gtest/gtest.h>
#include <sys/file.h>

#include <cstring>
#include <regex>
#include <sstream>

#include "tool_run.hpp"

namespace {

// With the commands of optional libraries where they were built.
std::vector<std::string> SubcommandNames() {
  std::vector<std::string> all = {"ports",     "detect",   "send", "shell",        "capture",
                                  "chain",     "sequence", "bin",  "spectrometer", "trigger",
                                  "calibrate", "project",  "plot"};
#ifdef ZELTOCOM_PLANS
  all.push_back("test");
#endif
#ifdef ZELTOCOM_SQLITE
  all.push_back("results");
#endif
  return all;
}

// What a test does to the tool while it runs: after `ms`, unplug the port
// or send the tool a signal.
std::function<void(pid_t)> After(int ms, std::function<void(pid_t)> act) {
  return [ms, act](pid_t tool) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    act(tool);
  };
}

zeltosim::Config Spectrometer(const std::string& serial) {
  zeltosim::Config config = Analyser(serial, 1);
  config.hardware = "Zelto 01-W2";
  return config;
}

TEST(ToolUsage, HelpComesFromEveryPlaceAUserAsksIt) {
  for (const std::string asked : {"--help", "-h", "help"}) {
    const Outcome overview = Tool({asked});
    EXPECT_EQ(overview.status, 0) << asked;
    for (const std::string& name : SubcommandNames()) {
      EXPECT_NE(overview.out.find("\n  " + name + " "), std::string::npos) << asked << " " << name;
    }
  }
  for (const std::string& name : SubcommandNames()) {
    // -h after a word is help, not a port or a command to send.
    for (const std::vector<std::string>& asked : std::vector<std::vector<std::string>>{
             {name, "--help"}, {name, "-h"}, {"help", name}, {name, "/dev/null", "-h"}}) {
      SCOPED_TRACE(::testing::PrintToString(asked));
      const Outcome help = Tool(asked);
      EXPECT_EQ(help.status, 0);
      EXPECT_NE(help.out.find("Usage: zeltocom " + name + " "), std::string::npos) << help.out;
      EXPECT_EQ(help.err, "");
    }
  }
  const Outcome version = Tool({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_TRUE(std::regex_match(version.out, std::regex("zeltocom [0-9]+\\.[0-9]+\\.[0-9]+\n")))
      << version.out;
}

// Words no command takes, refused before any instrument is opened: a hint
// on stderr, or with --json the document of the failure.
TEST(ToolUsage, BadUsageIsStatus2WithAHint) {
  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {},
           {"frob"},
           {"help", "frob"},
           {"send", "/dev/null"},
           {"capture", "--range", "9", "/dev/null"},
           {"capture", "-r", "x", "/dev/null"},
           {"capture", "--fibers", "3-1", "/dev/null"},
           {"sequence", "/dev/null"},
           {"sequence", "/dev/null", "-f", "1", "--find", "1-5", "--samples", "9"},
           {"detect", "--bogus"},
           {"bin", "a.vec", "x", "0.3"},
           {"plot", "cie", "-o", "x.svg"},
           {"plot", "bar", "-o", "x.svg"},
           {"ports", "extra"},
           {"--timeout", "0", "send", "/dev/null", "GETHW"},
           {"--json=loud", "ports"},
           {"trigger", "/dev/null"},
           {"trigger", "/dev/null", "--enable", "--disable"},
           {"trigger", "/dev/null", "--listen", "-r", "2"},
           {"trigger", "/dev/null", "--enable", "-o", "LOUD"},
           {"trigger", "/dev/null", "--listen", "--count", "0"},
           {"calibrate", "/dev/null", "gain", "set", "200", "-f", "1"},
           {"calibrate", "/dev/null", "gain", "set", "1.5", "-f", "1"},
           {"calibrate", "/dev/null", "xy", "set", "0.1", "-f", "1"},
           {"calibrate", "/dev/null", "frob", "get", "-f", "1"},
           {"calibrate", "/dev/null", "xy", "frob", "-f", "1"},
           {"calibrate", "/dev/null", "xy", "get"},
           {"spectrometer", "/dev/null", "-e", "-1"},
           {"spectrometer"},
           {"project", "/dev/null/project.ini"},
           {"project"},
           {"send", "--json"},
           {"--json", "send"},
           {"send", "-j", "/dev/null"},
           {"ports", "--json", "--csv"}}) {
    SCOPED_TRACE(::testing::PrintToString(bad));
    if (std::ranges::count(bad, "--json") + std::ranges::count(bad, "-j") > 0) {
      EXPECT_EQ(ToolJson(bad, "", 2)["/exit_status"], "2");
      continue;
    }
    const Outcome run = Tool(bad);
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("zeltocom"), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
  }
}

bool IsUtcTime(const std::string& text) {
  return std::regex_match(
      text,
      std::regex(R"(20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]{3}Z)"));
}

// Answers as lines or, with --json anywhere, as one document; the options
// after the commands are the tool's, "--" ends them, and a failure ends the
// run.
TEST(ToolOutput, SendPrintsAnswersAsLinesOrOneJsonDocument) {
  zeltosim::Config odd = Analyser("ZT000001");
  odd.hardware = "Zelto \"05\"\t\x01\xc3\xa9\xff";  // quote, tab, control, UTF-8, not UTF-8
  zeltosim::SimPort port(odd);
  const std::string ports = Ports({&port});
  const Outcome after = Tool({"send", port.path(), "GETSERIAL", "getnfib", "-b", "57600"}, ports);
  EXPECT_EQ(after.status, 0) << after.err;
  EXPECT_EQ(after.out, "ZT000001\n2\n");
  EXPECT_EQ(port.countReceived("-b") + port.countReceived("57600"), 0);
  const Outcome plain = Tool({"send", port.path(), "GETINFO"}, ports);
  EXPECT_TRUE(plain.out.starts_with("Zelto LED analyser\nHardware: ")) << plain.out;
  EXPECT_EQ(plain.out.find('\r'), std::string::npos);

  const Outcome compact =
      Tool({"send", port.path(), "GETINFO", "GETHW", "BOGUS", "GETSERIAL", "--json"}, ports);
  EXPECT_EQ(compact.status, 1) << compact.err;
  EXPECT_EQ(compact.out.find('\n'), compact.out.size() - 1) << compact.out;
  EXPECT_EQ(compact.out.find('\r'), std::string::npos) << compact.out;
  const FlatJson json(compact.out);
  EXPECT_EQ(json["/exchanges/0/answer/0"], "Zelto LED analyser");
  EXPECT_EQ(json["/exchanges/0/answer/3"], "Serial: ZT000001");
  EXPECT_EQ(json["/exchanges/1/answer"], "Zelto \"05\"\t\x01\xc3\xa9\xef\xbf\xbd");
  EXPECT_TRUE(IsUtcTime(json["/exchanges/1/time"])) << json["/exchanges/1/time"];
  EXPECT_EQ(json["/exchanges/2/error"], "Syntax error");
  EXPECT_FALSE(json.has("/exchanges/3/command"));

  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"--json", "send", port.path(), "GETNFIB"},
           {"send", "-j", port.path(), "GETNFIB"},
           {"--timeout", "900", "send", port.path(), "GETNFIB", "--json"}}) {
    EXPECT_EQ(ToolJson(args, ports)["/exchanges/0/answer"], "2");
  }
  const Outcome pretty = Tool({"send", port.path(), "GETSERIAL", "--json=pretty"}, ports);
  EXPECT_GT(std::count(pretty.out.begin(), pretty.out.end(), '\n'), 5) << pretty.out;
  EXPECT_EQ(FlatJson(pretty.out)["/exchanges/0/answer"], "ZT000001");
  const FlatJson dashed = ToolJson({"send", "--json", port.path(), "--", "-b", "--help"}, ports, 1);
  EXPECT_EQ(dashed["/exchanges/0/command"], "-b");
  EXPECT_EQ(port.countReceived("-b"), 1);

  const Outcome shell = Tool({"shell", port.path()}, ports, "GETSERIAL\n\nquit\nGETHW\n");
  EXPECT_EQ(shell.status, 0) << shell.err;
  EXPECT_EQ(shell.out, "ZT000001\n");
}

TEST(ToolOutput, CsvHasAHeaderOfKeysAndTheTablesRows) {
  zeltosim::SimPort port(Analyser("ZT000001", 2));
  const Outcome run = Tool({"capture", port.path(), "--csv"}, Ports({&port}));
  ASSERT_EQ(run.status, 0) << run.err;
  std::vector<std::string> lines;
  std::istringstream in(run.out);
  for (std::string line; std::getline(in, line);) {
    ASSERT_TRUE(line.ends_with('\r')) << line;
    lines.push_back(line.substr(0, line.size() - 1));
  }
  ASSERT_EQ(lines.size(), 3u) << run.out;
  EXPECT_EQ(lines[0].rfind("port,fiber,x,y,", 0), 0u) << lines[0];
  EXPECT_EQ(lines[2].rfind(port.path() + ",2,", 0), 0u) << lines[2];
  for (const std::string& line : lines) {
    EXPECT_EQ(std::count(line.begin(), line.end(), ','),
              std::count(lines[0].begin(), lines[0].end(), ','));
  }
}

// A square's vertical edges meet the one-crossing rule's ray: it finds the
// square where the other rule does not, and says so.
TEST(ToolBin, NamesTheBinOfAPointAndWhenTheOneCrossingRuleAnswersOtherwise) {
  const TempDir dir;
  const std::string file = dir / "bins.vec";
  std::ofstream(file) << "SQ=0.6,0.1;0.7,0.1;0.7,0.2;0.6,0.2\nTRI=0.1,0.1;0.3,0.15;0.2,0.3\n";
  const Outcome inside = Tool({"bin", file, "0.65", "0.15"});
  EXPECT_EQ(inside.status, 0);
  EXPECT_EQ(inside.out, "SQ\n");
  EXPECT_NE(inside.err.find("one-crossing rule"), std::string::npos) << inside.err;
  EXPECT_NE(inside.err.find("answers (in no bin)"), std::string::npos) << inside.err;
  const FlatJson outside = ToolJson({"bin", file, "0.8", "0.12", "--json"});
  EXPECT_EQ(outside["/bin"], "null");
  EXPECT_EQ(outside["/one_crossing_bin"], "SQ");
  EXPECT_EQ(outside["/rules_agree"], "false");
  const Outcome agreed = Tool({"bin", file, "0.2", "0.15"});
  EXPECT_EQ(agreed.out, "TRI\n");
  EXPECT_EQ(agreed.err, "");

  const Outcome check = Tool({"bin", "--check", file});
  EXPECT_EQ(check.status, 0);
  EXPECT_EQ(check.out, "SQ: an edge parallel or nearly parallel to the y axis\n");
  const FlatJson checked = ToolJson({"bin", "--check", file, "--json"});
  EXPECT_EQ(checked["/bins/0/bin"], "SQ");
  EXPECT_EQ(checked["/bins/0/reasons/0"], "an edge parallel or nearly parallel to the y axis");
  EXPECT_FALSE(checked.has("/bins/1/bin"));
  EXPECT_EQ(Tool({"bin", "--check", file, "0.3", "0.3"}).status, 2);
  EXPECT_EQ(Tool({"bin", file, "0.3"}).status, 2);
  EXPECT_EQ(Tool({"bin", file + ".missing.vec", "0.3", "0.3"}).status, 2);
}

TEST(ToolPorts, ListingsSayWhereTheirPortsCameFrom) {
  zeltosim::Station station(3, Analyser("ZT0000"));
  const std::string three = station.portsVariable();
  struct Case {
    std::string command;
    std::string variable;
    std::string member;  // of the JSON, holding the list
  };
  for (const Case& c : {Case{"ports", three, "/ports"}, Case{"detect", three, "/instruments"},
                        Case{"ports", "", "/ports"}, Case{"detect", "", "/instruments"}}) {
    SCOPED_TRACE(c.command + " with ZELTOCOM_PORTS='" + c.variable + "'");
    const Outcome human = Tool({c.command}, c.variable);
    EXPECT_EQ(human.status, 0) << human.err;
    EXPECT_EQ(human.out.rfind("Ports from ZELTOCOM_PORTS\n", 0), 0u) << human.out;
    const FlatJson json = ToolJson({c.command, "--json"}, c.variable);
    EXPECT_EQ(json["/ports_from"], "ZELTOCOM_PORTS");
    // Set but empty names no port: the machine's own are never listed.
    const int listed = c.variable.empty() ? 0 : 3;
    for (int i = 0; i < listed; ++i) {
      const std::string at = c.member + "/" + std::to_string(i);
      EXPECT_EQ(json[at + "/path"], station.port(i).path());
      if (c.command == "detect") {
        EXPECT_EQ(json[at + "/serial"], zeltosim::StationSerial("ZT0000", i + 1));
        EXPECT_EQ(json[at + "/model"], "Zelto 05-P");
      }
    }
    EXPECT_FALSE(json.has(c.member + "/" + std::to_string(listed) + "/path"));
  }
  const Outcome filtered = Tool({"detect", "--filter", "spectrometer"}, three);
  EXPECT_EQ(filtered.status, 0);
  EXPECT_EQ(filtered.out.find("ZT0000"), std::string::npos) << filtered.out;
}

TEST(ToolPorts, NamesAHolderOnlyForTheLibrarysOwnLock) {
  zeltosim::SimPort port(Analyser("ZT000001"));
  const std::string ports = Ports({&port});
  std::string self;
  std::getline(std::ifstream("/proc/self/comm"), self);
  const std::string pid = std::to_string(getpid());
  // A write lock on the whole file (l_whence SEEK_SET, l_len 0).
  const auto record = [](int command) {
    return [command](int fd) {
      struct flock lock {};
      lock.l_type = F_WRLCK;
      return fcntl(fd, command, &lock) == 0;
    };
  };
  struct Case {
    std::string lock;
    std::function<bool(int)> take;
    std::string open, pid, other, column;
  };
  const std::vector<Case> cases = {
      {"exclusive flock", [](int fd) { return flock(fd, LOCK_EX | LOCK_NB) == 0; }, "true", pid,
       "false", "yes, pid " + pid + " " + self},
      {"shared flock", [](int fd) { return flock(fd, LOCK_SH | LOCK_NB) == 0; }, "false", "null",
       "true", "locked by another program"},
      {"POSIX record lock", record(F_SETLK), "false", "null", "true", "locked by another program"},
      {"OFD lock", record(F_OFD_SETLK), "false", "null", "true", "locked by another program"},
      {"no lock", [](int) { return true; }, "false", "null", "false", "no"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lock);
    const int fd = open(port.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(c.take(fd)) << std::strerror(errno);
    const FlatJson json = ToolJson({"ports", "--json"}, ports);
    const Outcome human = Tool({"ports"}, ports);
    close(fd);
    EXPECT_EQ(json["/ports/0/open"], c.open);
    EXPECT_EQ(json["/ports/0/pid"], c.pid);
    EXPECT_EQ(json["/ports/0/process"], c.pid == "null" ? "null" : self);
    EXPECT_EQ(json["/ports/0/locked_by_other"], c.other);
    const std::regex row("\n" + port.path() + " +" + c.column + "\n");
    EXPECT_TRUE(std::regex_search(human.out, row)) << human.out;
  }
}

TEST(ToolInstruments, TraceShowsTheCommandsOfOneRunWhereAsked) {
  zeltosim::SimPort port(Analyser("ZT000001"));
  const std::string ports = Ports({&port});
  const TempDir dir;
  const std::string file = dir / "trace.txt";
  const std::string exchange = "GETNFIB";  // sent by this run alone, not by the open

  const Outcome toFile = Tool({"--trace", file, "send", port.path(), exchange}, ports);
  EXPECT_EQ(toFile.status, 0) << toFile.err;
  EXPECT_EQ(toFile.out, "2\n");
  EXPECT_EQ(toFile.err, "");
  const std::string trace = Slurp(file);
  EXPECT_NE(trace.find(exchange), std::string::npos) << trace;
  EXPECT_NE(trace.find(port.path()), std::string::npos) << trace;

  // Last, after the command's words, the option takes no word of theirs.
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"--trace", "send", port.path(), exchange},
                                             {"--trace=stderr", "send", port.path(), exchange},
                                             {"send", port.path(), exchange, "--trace"}}) {
    SCOPED_TRACE(::testing::PrintToString(args));
    const Outcome run = Tool(args, ports);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "2\n");
    EXPECT_NE(run.err.find(exchange), std::string::npos) << run.err;
  }
  EXPECT_EQ(Tool({"send", port.path(), exchange}, ports).err, "");

  const std::string nowhere = dir / "no-such-directory/trace.txt";
  const Outcome unwritable = Tool({"--trace", nowhere, "send", port.path(), exchange}, ports);
  EXPECT_EQ(unwritable.status, 2);
  EXPECT_NE(unwritable.err.find(nowhere), std::string::npos) << unwritable.err;
  EXPECT_EQ(unwritable.out, "");
}

TEST(ToolInstruments, SequenceMeasuresABlinkingLight) {
  zeltosim::SimPort port(Analyser("ZT000001"));
  port.master().setLight(0, zeltosim::Light::Blinking(5.0, 50.0));
  const FlatJson json = ToolJson(
      {"sequence", port.path(), "--fiber", "1", "--frequency", "--samples", "120", "--json"},
      Ports({&port}));
  EXPECT_NEAR(std::stod(json["/frequency_hz"]), 5.0, 0.3);
  EXPECT_NEAR(std::stod(json["/duty_cycle_percent"]), 50.0, 5.0);
  EXPECT_TRUE(json.has("/intensities/119"));
  EXPECT_EQ(json["/pattern/0/start_ms"], "0");
  EXPECT_EQ(json["/fiber"], "1");
}

TEST(ToolInstruments, NamesStandForPortsByPathLinkOrSerialNumber) {
  zeltosim::SimPort port(Analyser("ZT000001"));
  zeltosim::SimPort other(Analyser("ZT000002"));
  const std::string ports = Ports({&port, &other});
  const TempDir dir;
  const std::string link = dir / "link_to_port";
  ASSERT_EQ(symlink(other.path().c_str(), link.c_str()), 0);
  for (const std::string& name : {port.path(), link, std::string("ZT000002")}) {
    EXPECT_EQ(ToolJson({"send", name, "GETSERIAL", "--json"}, ports)["/port"],
              name == port.path() ? port.path() : other.path())
        << name;
  }
  const FlatJson bySerial =
      ToolJson({"capture", "ZT000001", link, "--fibers", "1", "--json"}, ports);
  EXPECT_EQ(bySerial["/ports/0/path"], port.path());
  EXPECT_EQ(bySerial["/ports/1/serial"], "ZT000002");

  for (const std::string& unknown : {std::string("ZT000009"), std::string("/dev/null")}) {
    const Outcome run = Tool({"send", unknown, "GETSERIAL"}, ports);
    EXPECT_EQ(run.status, 1) << unknown;
    EXPECT_NE(run.err.find("looked for"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("2 ports of ZELTOCOM_PORTS (" + port.path() + ", " + other.path()),
              std::string::npos)
        << run.err;
  }
}

// Every reading of the list shared with the Python package, as a number.
void ExpectEveryReading(const FlatJson& json, const std::string& fiber) {
  std::ifstream list(ZELTOCOM_CAPTURE_READINGS);
  int names = 0;
  for (std::string line; std::getline(list, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string name;
    words >> name;  // the command
    while (words >> name) {
      ++names;
      const std::string value = json[fiber + name];
      EXPECT_TRUE(std::regex_match(value, std::regex(R"(-?[0-9]+(\.[0-9]+)?)")))
          << name << ": " << value;
    }
  }
  EXPECT_GE(names, 8);
}

TEST(ToolInstruments, CapturePrintsEveryPortThatWorkedAndALinePerPortThatDidNot) {
  zeltosim::SimPort good(Analyser("ZT000001", 3));
  zeltosim::SimPort spectrometer(Spectrometer("ZT000002"));
  zeltosim::SimPort small(Analyser("ZT000004", 1));
  const std::string ports = Ports({&good, &spectrometer, &small});
  // Each fails at another step: capturing, naming the port, counting fibers.
  struct Case {
    std::string bad;  // the port that fails
    std::vector<std::string> options;
    std::string error;
  };
  for (const Case& c : {Case{spectrometer.path(), {}, "Device is a Spectrometer"},
                        Case{"ZT000099", {}, "no such instrument"},
                        Case{small.path(), {"--fibers", "2"}, "has 1 fiber"}}) {
    std::vector<std::string> args = {"capture", good.path(), c.bad};
    args.insert(args.end(), c.options.begin(), c.options.end());
    SCOPED_TRACE(c.bad);
    const Outcome table = Tool(args, ports);
    EXPECT_EQ(table.status, 1);
    EXPECT_NE(table.out.find("\n" + good.path() + "  2 "), std::string::npos) << table.out;
    EXPECT_EQ(std::count(table.err.begin(), table.err.end(), '\n'), 1) << table.err;
    EXPECT_NE(table.err.find(c.error), std::string::npos) << table.err;
    args.push_back("--json");
    const FlatJson json = ToolJson(args, ports, 1);
    EXPECT_EQ(json["/ports/0/serial"], "ZT000001");
    EXPECT_TRUE(json.has("/ports/0/fibers/0/x"));
    EXPECT_NE(json["/ports/1/error"].find(c.error), std::string::npos) << json["/ports/1/error"];
    EXPECT_FALSE(json.has("/ports/1/fibers/0/fiber"));
  }
  good.master().setCaptureMs(1300);
  const Outcome slow = Tool({"capture", good.path(), "--json"}, ports);
  EXPECT_EQ(slow.status, 0) << slow.err;
  EXPECT_NE(slow.err.find("capturing on 1 port..."), std::string::npos) << slow.err;
  const FlatJson json(slow.out);
  EXPECT_EQ(json["/ports/0/fibers/2/fiber"], "3");
  EXPECT_FALSE(json.has("/ports/0/fibers/3/fiber"));
  EXPECT_NEAR(std::stod(json["/ports/0/fibers/1/x"]), 0.33, 0.05);
  // Intensity shown linear, with what the instrument reported and its scale.
  EXPECT_EQ(json["/ports/0/fibers/1/intensity"], "1200");
  EXPECT_EQ(json["/ports/0/fibers/1/intensity_raw"], "16411");
  EXPECT_EQ(json["/ports/0/fibers/1/scale"], "logarithmic");
  ExpectEveryReading(json, "/ports/0/fibers/1/");
}

// The listener's loop, its instrument unplugged a moment after it began.
TEST(ToolInstruments, AnInstrumentUnpluggedMidCommandIsStatus1) {
  zeltosim::SimPort port(Analyser("ZT000001"));
  const std::string ports = Ports({&port});
  ASSERT_EQ(Tool({"trigger", port.path(), "--enable"}, ports).status, 0);
  const auto start = std::chrono::steady_clock::now();
  const Outcome run = Tool({"trigger", port.path(), "--listen"}, ports, "",
                           After(800, [&](pid_t) { port.unplug(); }));
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_FALSE(run.err.empty());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(ToolInterrupt, CtrlCClosesThePortsAndTellsWhatGoesOn) {
  zeltosim::SimPort port(Analyser("ZT000001"));
  const std::string ports = Ports({&port});
  const auto interrupt = After(800, [](pid_t tool) { kill(tool, SIGINT); });
  const Outcome sequence = Tool({"sequence", port.path(), "-f", "1", "--samples", "3000", "--json"},
                                ports, "", interrupt);
  EXPECT_EQ(sequence.status, 130) << sequence.err;
  const std::string aftermath = FlatJson(sequence.out)["/aftermath"];
  std::smatch left;
  ASSERT_TRUE(std::regex_search(aftermath, left, std::regex("for about ([0-9]+) s more")))
      << aftermath;
  EXPECT_NEAR(std::stoi(left[1]), 29, 2);
  EXPECT_NE(sequence.err.find("goes on sequencing"), std::string::npos) << sequence.err;

  zeltosim::SimPort other(Analyser("ZT000002"));
  other.master().setCaptureMs(20'000);
  const auto start = std::chrono::steady_clock::now();
  const Outcome capture = Tool({"capture", other.path()}, Ports({&other}), "", interrupt);
  EXPECT_EQ(capture.status, 130) << capture.err;
  EXPECT_NE(capture.err.find("capture they began"), std::string::npos) << capture.err;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST(ToolSpectrometer, TakesASpectrumOrTheDarkReference) {
  zeltosim::SimPort port(Spectrometer("ZS000001"));
  const std::string ports = Ports({&port});
  const FlatJson json = ToolJson({"spectrometer", port.path(), "--json"}, ports);
  EXPECT_EQ(json["/taken"], "spectrum");
  EXPECT_EQ(json["/exposure_ms"], "null");
  EXPECT_TRUE(IsUtcTime(json["/time"]));
  const Outcome dark = Tool({"spectrometer", port.path(), "-d", "-e", "2.5"}, ports);
  EXPECT_EQ(dark.status, 0) << dark.err;
  EXPECT_NE(dark.out.find("dark"), std::string::npos) << dark.out;
  EXPECT_EQ(port.master().lastCaptureCommand().rfind("CAPTUREDARK", 0), 0u);
}

TEST(ToolTrigger, EnablesListensAndDisables) {
  zeltosim::SimPort port(Analyser("ZT000001", 2));
  const std::string ports = Ports({&port});
  const Outcome on = Tool({"trigger", port.path(), "--enable", "-o", "xyi", "-r", "2"}, ports);
  ASSERT_EQ(on.status, 0) << on.err;
  EXPECT_EQ(port.countReceived("SETEXTERNALCAPTURE02"), 1);
  const auto fire = [&](pid_t) {
    for (int i = 0; i < 2; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      port.fireTrigger();
    }
  };
  const Outcome reports =
      Tool({"trigger", port.path(), "--listen", "--count", "2", "--json"}, ports, "", fire);
  EXPECT_EQ(reports.status, 0) << reports.err;
  std::istringstream documents(reports.out);
  int count = 0;
  for (std::string line; std::getline(documents, line); ++count) {
    const FlatJson json(line);
    ASSERT_TRUE(json.valid()) << line;
    EXPECT_EQ(json["/report"], std::to_string(count + 1));
    EXPECT_TRUE(json.has("/lines/1/2")) << line;  // two fibers, x y I each
    EXPECT_FALSE(json.has("/lines/2/0")) << line;
  }
  EXPECT_EQ(count, 2) << reports.out;

  const Outcome stopped = Tool({"trigger", port.path(), "--listen"}, ports, "",
                               After(600, [](pid_t tool) { kill(tool, SIGINT); }));
  EXPECT_EQ(stopped.status, 0) << stopped.err;
  EXPECT_NE(stopped.err.find("stays on"), std::string::npos) << stopped.err;

  EXPECT_EQ(Tool({"trigger", port.path(), "--disable", "--temporary"}, ports).status, 0);
  EXPECT_EQ(port.countReceived("PUTEXTERNALCAPTURE00"), 1);
}

TEST(ToolCalibrate, ReadsWritesResetsAndAdjustsAFibersValues) {
  zeltosim::SimPort port(Analyser("ZT000001", 2));
  const std::string ports = Ports({&port});
  struct Case {
    std::vector<std::string> words;  // after the port
    std::string member;              // of the JSON's values
    std::string value;
  };
  for (const Case& c :
       {Case{{"xy", "set", "0.01", "-0.02"}, "/values/y", "-0.02"},
        Case{{"xy", "get"}, "/values/x", "0.01"}, Case{{"xy", "reset"}, "/values/x", "0.0"},
        Case{{"gain", "set", "120", "--temporary"}, "/values/percent", "120"},
        Case{{"wavelength", "set", "-5"}, "/values/nm", "-5"},
        Case{{"wavelength", "reset"}, "/values/nm", "0"},
        Case{{"factor", "set", "1.5"}, "/values/factor", "1.5"},
        Case{{"factor", "reset"}, "/values/factor", "1.0"}}) {
    SCOPED_TRACE(::testing::PrintToString(c.words));
    std::vector<std::string> args = {"calibrate", port.path()};
    args.insert(args.end(), c.words.begin(), c.words.end());
    args.insert(args.end(), {"--fiber", "2", "--json"});
    EXPECT_EQ(ToolJson(args, ports)[c.member], c.value);
  }
  // Read back above; --temporary left it unstored.
  EXPECT_FALSE(port.master().userCalibration(1).intensityGain.stored);
  EXPECT_EQ(Tool({"calibrate", port.path(), "rgb", "reset", "-f", "1"}, ports).status, 0);
  // A colour it does not take is bad usage.
  EXPECT_EQ(Tool({"calibrate", port.path(), "rgb", "take", "Q", "-f", "1"}, ports).status, 2);
}

// Two instruments on one line, read by the chain and opened from a project.
TEST(ToolProject, ChainAndProjectReachEveryInstrumentOfADaisyChain) {
  zeltosim::SimPort port(Analyser("ZT000001"));
  port.chain(Analyser("ZT000002", 1));
  const std::string ports = Ports({&port});
  const FlatJson chain = ToolJson({"chain", port.path(), "ZT000002", "--json"}, ports);
  EXPECT_EQ(chain["/instruments/0/serial"], "ZT000001");
  EXPECT_EQ(chain["/instruments/1/serial"], "ZT000002");
  EXPECT_EQ(chain["/instruments/1/fibers/0/fiber"], "1");
  EXPECT_FALSE(chain.has("/instruments/1/fibers/1/fiber"));

  const TempDir dir;
  const std::string file = dir / "project.ini";
  std::ofstream(file) << "# a station\n[DEVICE]\nPORT=" << port.path()
                      << "\nID=LEFT\nSERIALNUMBER=ZT000001\nBAUDRATE=0\n[END]\n[DEVICE]\nPORT="
                      << port.path()
                      << "\nID=BEHIND\nSERIALNUMBER=ZT000002\nROLE=DAISY-CHAIN\n[END]\n";
  const FlatJson json = ToolJson({"project", file, "--json"}, ports);
  EXPECT_EQ(json["/instruments/0/id"], "LEFT");
  EXPECT_EQ(json["/instruments/0/serial"], "ZT000001");
  EXPECT_EQ(json["/instruments/1/id"], "BEHIND");
  EXPECT_EQ(json["/instruments/1/serial"], "ZT000002");
  EXPECT_EQ(json["/instruments/1/path"], port.path());
}

}  // namespace
