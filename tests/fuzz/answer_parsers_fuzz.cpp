// The readers that instrument answers go through: any answer gives a value,
// and the values keep what the readers promise.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "api/sequence_lines.hpp"
#include "device/identify.hpp"
#include "device/user_cal.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "fuzz_check.hpp"

using namespace zeltocom;

namespace {

bool IsTrimmed(const std::string& text) {
  return text.empty() || (text.front() != ' ' && text.back() != ' ');
}

void CheckNumbers(const std::string& text) {
  Require(ParseInt(text) >= 0);
  Require(ParseLong(text) >= 0);
  // Not a number fails this too.
  Require(ParseDecimal(text) >= 0);
  Require(FirmwareNumberOf(text) >= -1);
  const int deviceType = CMD_GetDeviceType(text);
  Require(deviceType >= DEVTYPE_UNKNOWN && deviceType <= DEVTYPE_CLRSTD);
  if (isInteger(text)) Require(text.find_first_not_of("0123456789") == std::string::npos);
}

void CheckFields(const std::string& text) {
  for (const std::string& piece : SplitNonEmpty(text, ';')) {
    Require(!piece.empty() && piece.find(';') == std::string::npos);
  }
  std::string filtered = text;
  filterstring(filtered);
  Require(std::ranges::none_of(filtered, [](unsigned char c) { return c <= 31; }));
  std::string line = text;
  const std::string key = GetParameter(line, 0);
  const std::string value = GetParameter(line, 1);
  Require(IsTrimmed(line) && IsTrimmed(value) && key.find('=') == std::string::npos);
  Require(strtoupper(text).size() == text.size() && strtolower(text).size() == text.size());
  Require(strcountchar(text, '=') <= static_cast<int>(text.size()));
}

void CheckRewrites(const std::string& text) {
  std::string decimal = text;
  FormatDecimal(decimal);
  Require(decimal.size() == text.size());
  if (text.empty()) return;
  // The first character doubled wherever it stands.
  std::string doubled = text;
  str_replace(doubled, text.substr(0, 1), text.substr(0, 1) + text.substr(0, 1));
  Require(doubled.size() == text.size() + static_cast<std::size_t>(strcountchar(text, text[0])));
}

// Any answer to a sequence readout, read with one to four fields per line:
// stores stay within the samples and never hold a float that is not finite.
void CheckReadout(const std::string& text) {
  constexpr int kSamples = 8;
  std::vector<int> ints(kSamples + 1, 0);
  std::vector<float> floats(kSamples + 1, 0.0f);
  std::vector<unsigned char> bytes(kSamples + 1, 0);
  const SampleColumn columns[] = {bytes.data(), floats.data(), ints.data(), ints.data()};
  for (std::size_t fields = 1; fields <= 4; ++fields) {
    StoreSamples(text, kSamples, std::span(columns).last(fields));
  }
  Require(ints.back() == 0 && floats.back() == 0.0f && bytes.back() == 0);
  Require(std::ranges::all_of(floats, [](float f) { return std::isfinite(f); }));
}

// A reading is a finite number or none, and one field is no more than the
// whole answer read as one.
void CheckReadings(const std::string& text) {
  const std::optional<double> whole = SingleReading<double>(text);
  Require(!whole || std::isfinite(*whole));
  Reading fields(text);
  const std::optional<float> first = fields.Next<float>();
  Require(!first || std::isfinite(*first));
  if (whole && first && fields.Done()) Require(static_cast<float>(*whole) == *first);
  const std::optional<int> integer = SingleReading<int>(text);
  if (integer) Require(whole && *whole == *integer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckNumbers(text);
  CheckFields(text);
  CheckRewrites(text);
  CheckReadout(text);
  CheckReadings(text);
  return 0;
}
