// A call over thousands of listed paths: its threads stay bounded and every
// port's result stays its own.
#include <atomic>
#include <fstream>
#include <thread>

#include "api/fan_out.hpp"
#include "bench.hpp"

using namespace std::chrono_literals;

namespace {

int ThreadsOfThisProcess() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
  }
  return -1;
}

// The most threads this process ran while it lived.
class ThreadWatch {
 public:
  ThreadWatch() : watcher_([this] { Watch(); }) {}
  ~ThreadWatch() { Stop(); }
  int Stop() {
    stop_ = true;
    if (watcher_.joinable()) watcher_.join();
    return most_;
  }

 private:
  void Watch() {
    while (!stop_) {
      most_ = std::max(most_.load(), ThreadsOfThisProcess());
      std::this_thread::sleep_for(200us);
    }
  }
  std::atomic<bool> stop_{false};
  std::atomic<int> most_{0};
  std::thread watcher_;
};

class ManyPortsTest : public SimBench {};

}  // namespace

TEST_F(ManyPortsTest, DetectionOverThousandsOfPathsKeepsItsThreadsBounded) {
  // Three instruments among 3000 paths that do not exist.
  constexpr int kPaths = 3000;
  const std::vector<int> instrumentsAt = {0, 1700, kPaths - 1};
  std::vector<std::string> expected;
  std::string listed;
  for (int i = 0; i < kPaths; ++i) {
    std::string path = "/nonexistent/zeltocom-" + std::to_string(i);
    if (std::ranges::find(instrumentsAt, i) != instrumentsAt.end()) {
      path = AddPort(Analyser("ZM" + std::to_string(100000 + i))).path();
      expected.push_back(path);
    }
    listed += (listed.empty() ? "" : ";") + path;
  }
  setenv("ZELTOCOM_PORTS", listed.c_str(), 1);
  ASSERT_EQ(ZeltoCom_EnumPorts(), kPaths);

  const int before = ThreadsOfThisProcess();
  ThreadWatch watch;
  std::string found(64 * 1024, '\0');
  const int count = ZeltoCom_DetectS(found.data(), ';', 0);
  const int most = watch.Stop();

  EXPECT_EQ(count, 3) << LastError();
  EXPECT_EQ(found.c_str(), expected[0] + ";" + expected[1] + ";" + expected[2]);
  // The watcher is one thread more.
  EXPECT_LE(most - before - 1, static_cast<int>(zeltocom::kMaxWorkers));
}
