// Host threads driving ports at once: two on each port, while another thread
// lists and closes the ports.
#include <atomic>
#include <future>
#include <thread>

#include "bench.hpp"

using namespace testlines;

using ThreadsTest = SimBench;

// Two threads on each port take turns on its line, while a fifth lists the
// ports and closes them one by one.
TEST_F(ThreadsTest, FourPortsWorkWhileAFifthThreadListsAndClosesThem) {
  for (const char* serial : {"ZS0001", "ZS0002", "ZS0003", "ZS0004"}) OpenPort(Analyser(serial));

  std::atomic<bool> closing{false};
  std::vector<std::future<std::string>> workers;
  for (const auto& port : ports_) {
    const std::string path = port->path();
    const std::string serial = port->master().serial();
    for (const auto& [command, expected] :
         {std::pair{"GETSERIAL", serial.c_str()}, {"GETHW", "Zelto 05-P"}}) {
      workers.push_back(std::async(std::launch::async, [path, command = std::string(command),
                                                        want = std::string(expected), &closing] {
        // Every call succeeds until the port is closed; after that the calls
        // fail as for a port that is not open.
        for (int i = 0; i < 40; ++i) {
          char answer[256] = "";
          const int sent = ZeltoCom_Send(path.c_str(), command.c_str(), answer);
          const int captured = ZeltoCom_Capture(path.c_str(), 0, 6, 0);
          if (sent == 1 && answer != want) return "answer " + std::string(answer);
          if (sent == 1 && captured == 1) continue;
          if (!closing) return "failed before any close: " + std::to_string(sent);
          if (sent == 0 || captured == 0) return std::string("instrument failure after a close");
        }
        return std::string();
      }));
    }
  }
  auto lister = std::async(std::launch::async, [&] {
    for (int round = 0; round < 4; ++round) {
      for (int i = 0; i < 20; ++i) {
        char text[2048];
        char paths[4][256];
        char* list[] = {paths[0], paths[1], paths[2], paths[3]};
        ZeltoCom_GetOpenedPortsS(text, ';');
        ZeltoCom_GetOpenedPorts(list);
        ZeltoCom_GetBaudrate(ports_[static_cast<std::size_t>(round)]->path().c_str());
        ZeltoCom_GetError_DescriptionBySN("ZS0004", text);
        std::this_thread::sleep_for(2ms);
      }
      closing = true;
      EXPECT_EQ(ZeltoCom_Close(ports_[static_cast<std::size_t>(round)]->path().c_str()), 1);
    }
  });
  lister.get();
  for (auto& worker : workers) EXPECT_EQ(worker.get(), "");
  char text[256];
  EXPECT_EQ(ZeltoCom_GetOpenedPortsS(text, ';'), 0);
}
