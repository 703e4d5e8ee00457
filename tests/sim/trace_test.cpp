// The simulator's trace: one line for each line an instrument receives and
// each burst it sends, by serial number, with the bytes escaped; and
// `zeltosim --verbose` putting it on standard error.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "support/lines.hpp"
#include "zeltosim/zeltosim.hpp"

namespace {

using namespace testlines;

// The host's end of a simulated port, raw at the instruments' default rate.
int OpenHost(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  termios raw{};
  if (fd < 0 || ::tcgetattr(fd, &raw) != 0) throw std::runtime_error("cannot open " + path);
  ::cfmakeraw(&raw);
  ::cfsetspeed(&raw, B57600);
  ::tcsetattr(fd, TCSANOW, &raw);
  return fd;
}

class Collected {
 public:
  void Add(const std::string& line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  // Waits a little for `wanted` to have come, as the port's thread writes it.
  bool Has(const std::string& wanted) {
    const auto deadline = Clock::now() + 500ms;
    for (;;) {
      {
        std::lock_guard lock(mutex_);
        if (std::ranges::find(lines_, wanted) != lines_.end()) return true;
      }
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(5ms);
    }
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST(SimTrace, EachLineInAndEachBurstOutIsOneEscapedLineOfItsInstrument) {
  Collected trace;
  zeltosim::Config master;
  master.serial = "ZT000001";
  master.eot = true;
  zeltosim::Config chained;
  chained.serial = "ZT000002";
  zeltosim::LineOptions line;
  line.trace = [&trace](const std::string& text) { trace.Add(text); };
  zeltosim::SimPort port(master, line);
  port.chain(chained);
  const int host = OpenHost(port.path());

  struct Case {
    std::string sent;
    std::string answerEnd;
    std::string in;
    std::string out;
  };
  const Case cases[] = {
      {"GETSERIAL\r\n", "\x04", R"(ZT000001 <- GETSERIAL\r\n)", R"(ZT000001 -> ZT000001\r\n\x04)"},
      // The master takes the line; the chained instrument confirms.
      {"BUSGETZT000002\r\n", "\r\n", R"(ZT000001 <- BUSGETZT000002\r\n)", R"(ZT000002 -> OK\r\n)"},
      {"GET\x01\xff\\\r\n", "\r\n", R"(ZT000002 <- GET\x01\xff\\\r\n)",
       R"(ZT000002 -> SYNTAX ERROR\r\n)"},
  };
  for (const Case& c : cases) {
    WriteTo(host, c.sent);
    EXPECT_TRUE(ReadFrom(host, 500ms, c.answerEnd).ends_with(c.answerEnd)) << c.in;
    EXPECT_TRUE(trace.Has(c.in)) << c.in;
    EXPECT_TRUE(trace.Has(c.out)) << c.out;
  }
  ::close(host);
}

// Reads `fd` until a line starting with `start` has come; that line.
std::string LineStarting(int fd, const std::string& start, std::string& pending) {
  const auto deadline = Clock::now() + 2s;
  while (Clock::now() < deadline) {
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line.starts_with(start)) return line;
    }
    pending += ReadFrom(fd, 50ms);
  }
  return "";
}

TEST(SimTrace, VerboseZeltosimPrintsCommandAndAnswerOnStandardError) {
  int out[2];
  int err[2];
  ASSERT_EQ(::pipe2(out, O_CLOEXEC | O_NONBLOCK), 0);
  ASSERT_EQ(::pipe2(err, O_CLOEXEC | O_NONBLOCK), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  std::string program = ZELTOSIM;
  std::string verbose = "--verbose";
  std::string port = "--port";
  std::string settings = "serial=ZV000001";
  char* argv[] = {program.data(), verbose.data(), port.data(), settings.data(), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(::posix_spawn(&pid, ZELTOSIM, &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);

  std::string stdoutText;
  std::string stderrText;
  const std::string ports = LineStarting(out[0], "ZELTOCOM_PORTS=", stdoutText);
  ASSERT_FALSE(ports.empty());
  const int host = OpenHost(ports.substr(ports.find('=') + 1));
  WriteTo(host, "GETSERIAL\r\n");
  EXPECT_EQ(ReadFrom(host, 1s, "\r\n"), "ZV000001\r\n");
  EXPECT_EQ(LineStarting(err[0], "ZV000001 <-", stderrText), R"(ZV000001 <- GETSERIAL\r\n)");
  EXPECT_EQ(LineStarting(err[0], "ZV000001 ->", stderrText), R"(ZV000001 -> ZV000001\r\n)");
  // Standard output keeps only the port list.
  stdoutText += ReadFrom(out[0], 50ms);
  EXPECT_EQ(stdoutText.find("<-"), std::string::npos) << stdoutText;

  ::close(host);
  ::kill(pid, SIGTERM);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ::close(out[0]);
  ::close(err[0]);
}

}  // namespace
