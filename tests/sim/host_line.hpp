// The host's end of a simulated line, driven with plain POSIX calls.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace simtest {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class HostLine {
 public:
  explicit HostLine(const std::string& path, speed_t speed = B57600) {
    fd_ = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd_ < 0) throw std::runtime_error("cannot open " + path);
    setSpeed(speed);
    ::tcflush(fd_, TCIOFLUSH);
  }
  ~HostLine() { ::close(fd_); }
  HostLine(const HostLine&) = delete;
  HostLine& operator=(const HostLine&) = delete;

  void setSpeed(speed_t speed) {
    termios t{};
    ::tcgetattr(fd_, &t);
    ::cfmakeraw(&t);
    ::cfsetispeed(&t, speed);
    ::cfsetospeed(&t, speed);
    if (::tcsetattr(fd_, TCSANOW, &t) != 0) throw std::runtime_error("tcsetattr failed");
  }

  void send(const std::string& line) { sendRaw(line + "\r\n"); }
  void sendRaw(const std::string& bytes) {
    if (::write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
      throw std::runtime_error("short write");
  }

  // Everything that arrives until the text ends with `end` or the time is up.
  std::string readUntil(const std::string& end, std::chrono::milliseconds limit = 1000ms) {
    std::string got;
    const auto deadline = Clock::now() + limit;
    while (!got.ends_with(end) && readSome(got, deadline)) {
    }
    return got;
  }

  // Everything that arrives within `span`.
  std::string readFor(std::chrono::milliseconds span) {
    std::string got;
    const auto deadline = Clock::now() + span;
    while (readSome(got, deadline)) {
    }
    return got;
  }

  std::string ask(const std::string& command, const std::string& end = "\r\n") {
    send(command);
    return readUntil(end);
  }

 private:
  // false once the deadline has passed.
  bool readSome(std::string& got, Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return Clock::now() < deadline;
    char buffer[512];
    const ssize_t n = ::read(fd_, buffer, sizeof buffer);
    if (n > 0) got.append(buffer, static_cast<size_t>(n));
    return true;
  }

  int fd_ = -1;
};

inline long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace simtest
