#include "pty_line.hpp"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace zeltosim::detail {
namespace {

[[noreturn]] void Fail(const char* what) {
  throw std::runtime_error(std::string("pseudo-terminal: ") + what + ": " + std::strerror(errno));
}

void CloseIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

PtyLine::PtyLine() {
  master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
  if (master_ < 0) Fail("posix_openpt");
  try {
    if (::grantpt(master_) != 0) Fail("grantpt");
    if (::unlockpt(master_) != 0) Fail("unlockpt");
    char name[128] = {};
    if (::ptsname_r(master_, name, sizeof name) != 0) Fail("ptsname_r");
    path_ = name;
    if (::fcntl(master_, F_SETFD, FD_CLOEXEC) != 0) Fail("fcntl(FD_CLOEXEC)");
    const int flags = ::fcntl(master_, F_GETFL);
    if (flags < 0 || ::fcntl(master_, F_SETFL, flags | O_NONBLOCK) != 0) Fail("fcntl(O_NONBLOCK)");
    slave_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_ < 0) Fail("open slave");
    termios raw{};
    if (::tcgetattr(slave_, &raw) != 0) Fail("tcgetattr");
    ::cfmakeraw(&raw);
    if (::tcsetattr(slave_, TCSANOW, &raw) != 0) Fail("tcsetattr");
  } catch (...) {
    CloseIfOpen(slave_);
    CloseIfOpen(master_);
    throw;
  }
}

PtyLine::~PtyLine() { close(); }

void PtyLine::close() {
  CloseIfOpen(slave_);
  CloseIfOpen(master_);
}

}  // namespace zeltosim::detail
