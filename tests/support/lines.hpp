// The far end of a pseudo-terminal as tests play it, and wall-clock timing.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

namespace testlines {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

inline long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Reads what arrives on `fd` until the text ends with `end` (when given) or
// `limit` has passed.
inline std::string ReadFrom(int fd, std::chrono::milliseconds limit, const std::string& end = "") {
  std::string got;
  const auto deadline = Clock::now() + limit;
  while (end.empty() || !got.ends_with(end)) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[512];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) got.append(buffer, static_cast<size_t>(n));
    if (n <= 0) std::this_thread::sleep_for(1ms);
  }
  return got;
}

inline void WriteTo(int fd, const std::string& bytes) {
  if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("short write");
}

// The instrument's end of a pseudo-terminal, played by the test itself; the
// library opens path().
class FarEnd {
 public:
  FarEnd() {
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0)
      throw std::runtime_error("no pseudo-terminal");
    path_ = ::ptsname(master_);
    // Held open so that the master never sees a hang-up.
    slave_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY);
  }
  ~FarEnd() {
    ::close(slave_);
    ::close(master_);
  }
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  const std::string& path() const { return path_; }
  void Write(const std::string& bytes) { WriteTo(master_, bytes); }
  // Writes `bytes` when the line takes them within `limit`; false when it is
  // full, as it stays once the library has stopped reading.
  bool Offer(const std::string& bytes, std::chrono::milliseconds limit) {
    pollfd p{master_, POLLOUT, 0};
    if (::poll(&p, 1, static_cast<int>(limit.count())) <= 0) return false;
    WriteTo(master_, bytes);
    return true;
  }
  std::string ReadFor(std::chrono::milliseconds span) { return ReadFrom(master_, span); }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string path_;
};

}  // namespace testlines
