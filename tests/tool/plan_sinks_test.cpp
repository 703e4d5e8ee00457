// A test plan's result kept: stored in SQLite and read back by
// `zeltocom results`, and published to a real mosquitto broker.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

#include "plan_sinks.hpp"
#include "tool_run.hpp"
#ifdef ZELTOCOM_SQLITE
#include <sqlite3.h>
#endif

namespace {

using Json = nlohmann::ordered_json;

// One analyser, two fibers; a failing run fails fiber 2 on intensity.
Json SampleResult(const std::string& plan, const std::string& unit, const std::string& start,
                  bool pass) {
  Json result = Json::parse(R"({"format": 1, "plan": "", "unit": "", "station": "line-3",
    "start": "", "end": "", "pass": true, "instruments": [{"serial": "ZA000001",
    "path": "/dev/pts/7", "model": "Zelto 01", "firmware": "F128", "error": null, "fibers": [
      {"fiber": 1, "x": 0.3125, "y": 0.329, "wavelength": 455, "bin": "W1", "pass": true,
       "intensity": {"linear": 1200, "raw": 16411, "scale": "logarithmic"}, "failed": []}]}],
    "sequences": []})");
  result.update({{"plan", plan}, {"unit", unit}, {"start", start}, {"end", start}, {"pass", pass}});
  Json& fibers = result["instruments"][0]["fibers"];
  fibers.push_back(Json(fibers[0]));
  fibers[1]["fiber"] = 2;
  if (!pass) {
    fibers[1]["pass"] = false;
    fibers[1]["failed"] = Json::parse(R"([{"limit": "intensity", "value": 1200,
                                           "window": [100, 1000]}])");
  }
  return result;
}

#ifdef ZELTOCOM_SQLITE

void Store(const Json& result, const std::string& db) {
  std::string error;
  ASSERT_TRUE(StoreResult(result, db, &error)) << error;
}

// The first column of the first row, as the sqlite3 shell prints it.
std::string Query(const std::string& db, const std::string& sql) {
  sqlite3* handle = nullptr;
  sqlite3_open(db.c_str(), &handle);
  std::string value = "<no row>";
  sqlite3_exec(
      handle, sql.c_str(),
      [](void* into, int, char** columns, char**) {
        *static_cast<std::string*>(into) = columns[0] != nullptr ? columns[0] : "NULL";
        return 0;
      },
      &value, nullptr);
  sqlite3_close(handle);
  return value;
}

// Three runs, stored out of time order: "lamp" passes one of two, "tail" its one.
class ResultStore : public ::testing::Test {
 protected:
  void SetUp() override {
    Store(SampleResult("lamp", "U2", "2026-11-24T10:00:00.000Z", false), db);
    Store(SampleResult("lamp", "U1", "2026-11-23T08:00:00.000Z", true), db);
    Store(SampleResult("tail", "U3", "2026-11-24T11:30:00.500Z", true), db);
  }
  Json Results(std::vector<std::string> args, const std::vector<std::string>& environment = {}) {
    args.insert(args.begin(), {"results", "--json"});
    const Outcome run = Tool(args, "", "", nullptr, environment);
    EXPECT_EQ(run.status, 0) << run.err;
    return Json::parse(run.out, nullptr, false);
  }
  TempDir dir;
  const std::string db = dir / "results.db";
};

TEST_F(ResultStore, RunsComeBackOldestFirstWithTheYieldOfEachPlan) {
  // Their order is the filters' test's.
  const Json read = Results({"--db", db});
  ASSERT_EQ(read["runs"].size(), 3u) << read;
  EXPECT_EQ(read["runs"][1]["pass"], false);
  EXPECT_EQ(read["runs"][1]["failed_fibers"], 1);
  EXPECT_EQ(read["runs"][2]["start"], "2026-11-24T11:30:00.500Z");
  EXPECT_EQ(read["yield"], Json::parse(R"([{"plan":"lamp","runs":2,"passed":1,"yield":0.5},
                                           {"plan":"tail","runs":1,"passed":1,"yield":1.0}])"));
  // The failing fiber's reading and its failed limit, as kept.
  EXPECT_EQ(Query(db, "SELECT intensity_linear || intensity_scale || intensity_raw || bin"
                      " FROM measurements WHERE pass = 0"),
            "1200.0logarithmic16411.0W1");
  EXPECT_EQ(Json::parse(Query(db, "SELECT failed FROM measurements WHERE pass = 0")),
            SampleResult("lamp", "U2", "", false)["instruments"][0]["fibers"][1]["failed"]);
  EXPECT_EQ(Query(db, "SELECT count(*) FROM instruments WHERE firmware = 'F128'"), "3");

  const Outcome table = Tool({"results", "--db", db});
  EXPECT_NE(table.out.find("FAIL"), std::string::npos) << table.out;
  EXPECT_NE(table.out.find("50.0 %"), std::string::npos) << table.out;
  // CSV: the runs, an empty line, the yields.
  const Outcome csv = Tool({"results", "--csv", "--db", db});
  EXPECT_EQ(csv.out.rfind("id,start,plan,unit,station,result,failed_fibers\r\n", 0), 0u);
  EXPECT_NE(csv.out.find("\r\n\r\nplan,runs,passed,yield\r\nlamp,2,1,0.5\r\n"), std::string::npos)
      << csv.out;
}

TEST_F(ResultStore, FiltersNarrowTheRunsAndTheirYield) {
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> units;
  } cases[] = {
      {{}, {"U1", "U2", "U3"}},
      {{"--unit", "U2"}, {"U2"}},
      {{"--since", "2026-11-24"}, {"U2", "U3"}},
      {{"--since", "2026-11-24T10:00:00.001Z"}, {"U3"}},
      {{"--since", "2026-11-24T10"}, {"U2", "U3"}},
      {{"--plan", "lamp"}, {"U1", "U2"}},
      {{"--plan", "lamp", "--since", "2026-11-24"}, {"U2"}},
      {{"--unit", "nobody"}, {}},
  };
  for (auto [args, expected] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    args.insert(args.end(), {"--db", db});
    const Json read = Results(args);
    std::vector<std::string> units;
    for (const Json& run : read["runs"]) units.push_back(run["unit"]);
    EXPECT_EQ(units, expected);
    std::size_t counted = 0;
    for (const Json& plan : read["yield"]) counted += plan["runs"].get<std::size_t>();
    EXPECT_EQ(counted, expected.size());
  }
  // The database named by the environment.
  EXPECT_EQ(Results({"--unit", "U3"}, {"ZELTOCOM_DB=" + db})["runs"].size(), 1u);
}

TEST(ResultStoreWriters, TwoStationsAtOnceLoseNoRows) {
  TempDir dir;
  const std::string db = dir / "shared.db";
  constexpr int kRuns = 50;
  std::vector<pid_t> writers;
  for (int station = 0; station < 2; ++station) {
    const pid_t child = fork();
    if (child == 0) {
      int stored = 0;
      std::string error;
      for (int i = 0; i < kRuns; ++i) {
        const Json run =
            SampleResult("lamp", "S" + std::to_string(station) + "-" + std::to_string(i),
                         "2026-11-24T10:00:00.000Z", i % 2 == 0);
        if (StoreResult(run, db, &error)) ++stored;
      }
      if (stored != kRuns) std::fprintf(stderr, "station %d: %s\n", station, error.c_str());
      _exit(stored == kRuns ? 0 : 1);
    }
    writers.push_back(child);
  }
  for (const pid_t writer : writers) {
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(Query(db, "SELECT count(DISTINCT unit) FROM runs"), std::to_string(2 * kRuns));
  EXPECT_EQ(Query(db, "SELECT count(*) FROM measurements"), std::to_string(4 * kRuns));
  EXPECT_EQ(Query(db, "PRAGMA journal_mode"), "wal");
}

TEST(ResultStoreBadInput, ClearErrorsAndNothingStored) {
  TempDir dir;
  const std::string db = dir / "results.db";
  std::ofstream(dir / "text.db") << "not a database\n";
  // A database of a later version of the tool.
  const std::string future = dir / "future.db";
  Store(SampleResult("lamp", "U1", "2026-11-24T10:00:00.000Z", true), future);
  Query(future, "PRAGMA user_version = 2");
  Json noPlan = SampleResult("lamp", "U1", "2026-11-24", true);
  noPlan.erase("plan");
  Json textPass = SampleResult("lamp", "U1", "2026-11-24", true);
  textPass["pass"] = "yes";
  const struct {
    Json result;
    std::string path;
    std::string error;
  } cases[] = {
      {noPlan, db, "'plan' is missing"},
      {textPass, db, "'pass' is missing or not true or false"},
      {Json::array(), db, "'plan' is missing"},
      {SampleResult("lamp", "U1", "2026-11-24", true), dir / "no/such/dir.db", "no/such/dir.db: "},
      {SampleResult("lamp", "U1", "2026-11-24", true), dir / "text.db", "not a database"},
      {SampleResult("lamp", "U2", "2026-11-24", true), future, "schema version 2 is newer"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(StoreResult(c.result, c.path, &error)) << c.path;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
  const struct {
    std::vector<std::string> args;
    int status;
    std::string error;
  } reads[] = {
      {{"results"}, 2, "no database: give --db FILE or set ZELTOCOM_DB"},
      {{"results", "--db", dir / "missing.db"}, 1, "missing.db: no such file"},
      {{"results", "--db", dir / "text.db"}, 1, "not a database"},
      {{"results", "--db", db, "--since", "yesterday"}, 2, "--since: expected a UTC date"},
      {{"results", "--db", future}, 1, "schema version 2 is newer"},
  };
  for (const auto& r : reads) {
    const Outcome run = Tool(r.args);
    EXPECT_EQ(run.status, r.status) << ::testing::PrintToString(r.args);
    EXPECT_NE(run.err.find(r.error), std::string::npos) << run.err;
  }
  EXPECT_EQ(Query(future, "SELECT count(*) FROM runs"), "1");
}

#endif  // ZELTOCOM_SQLITE

#ifdef ZELTOCOM_MQTT

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

// A loopback port that nothing listens on while `holder` stays open.
int ClosedPort(int& holder) {
  holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof address;
  bind(holder, reinterpret_cast<sockaddr*>(&address), size);
  getsockname(holder, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

bool Accepts(int port) {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  const bool connected =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(probe);
  return connected;
}

TEST(MqttPublish, TheResultArrivesRetainedUnderItsTopic) {
  const std::string mosquitto = "/usr/sbin/mosquitto";
  if (access(mosquitto.c_str(), X_OK) != 0 || system("command -v mosquitto_sub >/dev/null") != 0) {
    GTEST_SKIP() << "mosquitto or mosquitto_sub is not installed (Debian: mosquitto, "
                    "mosquitto-clients)";
  }
  TempDir dir;
  int holder = -1;
  const std::string port = std::to_string(ClosedPort(holder));
  close(holder);
  std::ofstream(dir / "mosquitto.conf")
      << "listener " << port << " 127.0.0.1\n"
      << "allow_anonymous true\npersistence false\nlog_dest none\n";
  Json result = SampleResult("front+lamp#2", "U1", "2026-11-24T10:00:00.000Z", false);
  result["station"] = "hall/3";
  std::string line;
  // The broker runs until the subscriber, started after the publisher left,
  // has had what it keeps: only a retained message arrives.
  ::Run({mosquitto, "-c", dir / "mosquitto.conf"}, Environment(), "", [&](pid_t broker) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!Accepts(std::stoi(port)) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::string error;
    EXPECT_TRUE(PublishResult(result, "mqtt://127.0.0.1:" + port, &error)) << error;
    line =
        Shell("mosquitto_sub -h 127.0.0.1 -p " + port + " -C 1 -W 10 -t 'zeltocom/#' -F '%r %t %p'")
            .out;
    kill(broker, SIGTERM);
  });
  const std::string head = "1 zeltocom/hall_3/front_lamp_2/result ";
  ASSERT_EQ(line.rfind(head, 0), 0u) << line;
  EXPECT_EQ(Json::parse(line.substr(head.size())), result);
}

TEST(MqttPublish, AnUnreachableBrokerIsAClearErrorWithinSeconds) {
  int holder = -1;
  const std::string port = std::to_string(ClosedPort(holder));
  for (const std::string& url : {"mqtt://127.0.0.1:" + port, "127.0.0.1:" + port + "/"}) {
    const auto start = std::chrono::steady_clock::now();
    std::string error;
    EXPECT_FALSE(PublishResult(SampleResult("lamp", "U1", "", true), url, &error));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
    EXPECT_EQ(error.rfind("Unable to reach the MQTT broker at 127.0.0.1:" + port + ": ", 0), 0u)
        << error;
  }
  close(holder);
}

TEST(MqttPublish, MalformedUrlsAreRefused) {
  for (const std::string url :
       {"mqtts://host", "http://host:1883", "mqtt://", "mqtt://host:0", "mqtt://host:65536",
        "mqtt://host:x", "mqtt://host/topic", "mqtt://[::1"}) {
    std::string error;
    EXPECT_FALSE(PublishResult(SampleResult("lamp", "U1", "", true), url, &error)) << url;
    EXPECT_NE(error.find(url), std::string::npos) << error;
  }
}

#endif  // ZELTOCOM_MQTT

}  // namespace
