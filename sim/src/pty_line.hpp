// A pseudo-terminal whose master side plays the instrument.
#pragma once

#include <string>

namespace zeltosim::detail {

class PtyLine {
 public:
  // Throws std::runtime_error when the pty cannot be set up.
  PtyLine();
  ~PtyLine();
  PtyLine(const PtyLine&) = delete;
  PtyLine& operator=(const PtyLine&) = delete;

  int master() const { return master_; }
  // Closes both sides; the host's side of the line hangs up.
  void close();
  const std::string& path() const { return path_; }

 private:
  int master_ = -1;
  // Held open for the pty's whole life: the settings then survive the host's
  // close, and the master never sees a hang-up.
  int slave_ = -1;
  std::string path_;
};

}  // namespace zeltosim::detail
