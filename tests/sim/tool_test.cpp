// The zeltosim executable: its options, its announcement and its shutdown.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "host_line.hpp"

using namespace simtest;

namespace {

// A running zeltosim with its stdout and stderr on pipes.
class Tool {
 public:
  explicit Tool(std::vector<std::string> args) {
    int out[2], err[2];
    if (::pipe(out) != 0 || ::pipe(err) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], 1);
      ::dup2(err[1], 2);
      std::vector<char*> argv{const_cast<char*>(ZELTOSIM_EXE)};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execv(ZELTOSIM_EXE, argv.data());
      ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~Tool() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(out_);
    ::close(err_);
  }

  // stdout up to and including the line that starts with `prefix`.
  std::string stdoutUntil(const std::string& prefix) { return readUntil(out_, "\n" + prefix, true); }
  std::string stderrText() { return readUntil(err_, "", false); }

  int exitStatus(int signal = 0) {
    if (signal != 0) ::kill(pid_, signal);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static std::string readUntil(int fd, const std::string& marker, bool wholeLine) {
    std::string got = "\n";
    const auto deadline = Clock::now() + 5s;
    while (Clock::now() < deadline) {
      const size_t at = marker.empty() ? std::string::npos : got.find(marker);
      if (at != std::string::npos && (!wholeLine || got.find('\n', at + 1) != std::string::npos)) break;
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      char buffer[256];
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n <= 0) break;
      got.append(buffer, static_cast<size_t>(n));
    }
    return got.substr(1);
  }

  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
};

std::string Field(const std::string& text, const std::string& key) {
  const size_t at = text.find(key + "=");
  if (at == std::string::npos) return "";
  const size_t start = at + key.size() + 1;
  return text.substr(start, text.find_first_of(" \n", start) - start);
}

}  // namespace

TEST(SimTool, RejectsBadOptionsWithStatus2) {
  const std::vector<std::vector<std::string>> bad = {
      {"--bogus"}, {"--port", "baud=fast"}, {"--chain", "serial=X"},
      {"--port", "colour=red"}, {"--port", "", "--chain", "baud=9600"}, {"--port"}};
  for (const auto& args : bad) {
    Tool tool(args);
    const std::string message = tool.stderrText();
    EXPECT_EQ(tool.exitStatus(), 2) << args[0];
    EXPECT_NE(message.find("zeltosim: "), std::string::npos) << message;
  }
}

TEST(SimTool, AnnouncesItsPortsAndServesThemUntilTerminated) {
  Tool tool({"--port", "serial=AA1,eot=1", "--chain", "serial=BB2", "--port=baud=9600"});
  const std::string out = tool.stdoutUntil("ZELTOCOM_PORTS=");
  const std::string ports = Field(out, "ZELTOCOM_PORTS");
  const size_t split = ports.find(';');
  ASSERT_NE(split, std::string::npos) << out;
  EXPECT_NE(out.find("serial=BB2 baud=57600 path=" + ports.substr(0, split) + " chained=AA1"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("serial=ZS000003 baud=9600"), std::string::npos) << out;

  HostLine host(ports.substr(0, split));
  EXPECT_EQ(host.ask("GETSERIAL", "\x04"), "AA1\r\n\x04");
  HostLine second(ports.substr(split + 1), B9600);
  EXPECT_EQ(second.ask("GETSERIAL"), "ZS000003\r\n");
  EXPECT_EQ(tool.exitStatus(SIGTERM), 0);
}
