#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace zeltocom {

// A text field of a fixed capacity, as the instruments' identifiers and the
// error texts have: longer input is cut, never overflows.
template <std::size_t N>
class FixedText {
 public:
  static constexpr std::size_t kMaxLength = N - 1;

  void assign(std::string_view text, std::size_t maxLength = kMaxLength) {
    const std::size_t n = std::min({text.size(), maxLength, kMaxLength});
    std::memcpy(buf_, text.data(), n);
    buf_[n] = '\0';
  }
  void clear() { buf_[0] = '\0'; }

  const char* c_str() const { return buf_; }
  std::string_view view() const { return std::string_view(buf_); }
  bool empty() const { return buf_[0] == '\0'; }
  bool operator==(std::string_view other) const { return view() == other; }

 private:
  char buf_[N] = {};
};

}  // namespace zeltocom
