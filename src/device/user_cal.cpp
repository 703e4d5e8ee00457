#include "device/user_cal.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "device/exchange.hpp"
#include "device/identify.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace {

constexpr TimeoutMs kReadMs = 300;
constexpr TimeoutMs kOffsetWriteMs = 500;
constexpr TimeoutMs kWriteMs = 300;

std::string FiberText(const s_CommPort* port, int fiber) {
  return StringPrintf(port->deviceType == DEVTYPE_NODE ? "%03d" : "%02d", fiber);
}

// SET keeps a value in the instrument; PUT only uses it until power-off.
std::string Form(bool set) { return set ? "SET" : "PUT"; }

// The answer, when it came in time and was no refusal.
std::optional<std::string> Ask(s_CommPort* port, const std::string& command, TimeoutMs timeoutMs) {
  std::string answer;
  if (CMD_SendCommand(port, command, timeoutMs, &answer) != 1) return std::nullopt;
  return answer;
}

// A getter's exchange: the answer's one number into `output`.
template <typename Number>
int ReadNumber(s_CommPort* port, const std::string& command, Number* output) {
  const std::optional<std::string> answer = Ask(port, command, kReadMs);
  if (!answer) return 0;
  const std::optional<Number> value = SingleReading<Number>(*answer);
  if (!value) return kWrongReading;
  *output = *value;
  return 1;
}

// Always signed: "+0.000", "-0.250".
std::string OffsetText(float value) { return WithDecimalPoint(StringPrintf("%+0.3f", value)); }

bool Written(s_CommPort* port, const std::string& command, TimeoutMs timeoutMs) {
  return Ask(port, command, timeoutMs).has_value();
}

// Only an exchange that gave 0 counts as failed here.
int SentAtLeast(s_CommPort* port, const std::string& command) {
  return CMD_SendCommand(port, command, kWriteMs) != 0 ? 1 : 0;
}

}  // namespace

int CMD_Get_xyOffsets(s_CommPort* port, int fiber, float* x, float* y) {
  const std::string number = FiberText(port, fiber);
  const int result = ReadNumber(port, "GETXOFFSET" + number, x);
  return result == 1 ? ReadNumber(port, "GETYOFFSET" + number, y) : result;
}

int CMD_Set_xyOffsets(s_CommPort* port, int fiber, float x, float y, int setMode) {
  const std::string head = Form(setMode != 0);
  const std::string number = FiberText(port, fiber);
  if (!Written(port, head + "XOFFSET" + number + OffsetText(x), kOffsetWriteMs)) return 0;
  return Written(port, head + "YOFFSET" + number + OffsetText(y), kOffsetWriteMs) ? 1 : 0;
}

int CMD_Get_WavelengthOffset(s_CommPort* port, int fiber, int* offset) {
  return ReadNumber(port, "GETWAVELENGTHOFFSET" + FiberText(port, fiber), offset);
}

int CMD_Set_WavelengthOffset(s_CommPort* port, int fiber, int offset, int setMode) {
  if (std::abs(static_cast<long>(offset)) > kMaxWavelengthOffset) return 0;
  const std::string command = Form(setMode != 0) + "WAVELENGTHOFFSET" + FiberText(port, fiber) +
                              StringPrintf("%+03d", offset);
  return Written(port, command, kOffsetWriteMs) ? 1 : 0;
}

int CMD_Get_IntensityGain(s_CommPort* port, int fiber, int* gain) {
  return ReadNumber(port, "GETINTGAIN" + FiberText(port, fiber), gain);
}

int CMD_Set_IntensityGain(s_CommPort* port, int fiber, int gain, int setMode) {
  if (gain < kMinIntensityGain || gain > kMaxIntensityGain) return 0;
  return SentAtLeast(
      port, Form(setMode == 1) + "INTGAIN" + FiberText(port, fiber) + StringPrintf("%03d", gain));
}

int CMD_Get_AbsoluteIntensityFactor(s_CommPort* port, int fiber, double* factor) {
  return ReadNumber(port, "GETABSINTMULT" + FiberText(port, fiber), factor);
}

int CMD_Set_AbsoluteIntensityFactor(s_CommPort* port, int fiber, double factor, int setMode) {
  return SentAtLeast(
      port, Form(setMode == 1) + "ABSINTMULT" + FiberText(port, fiber) + FormatExponential(factor));
}

std::string WithDecimalPoint(std::string text) {
  str_replace(text, ",", ".");
  return text;
}

std::string FormatExponential(double value) {
  std::string text = WithDecimalPoint(StringPrintf("%0.5E", value));
  const std::size_t e = text.find('E');
  if (e == std::string::npos) return text;  // not a number, or infinite
  std::string_view exponent = std::string_view{text}.substr(e + 1);
  char sign = '+';
  if (!exponent.empty() && (exponent.front() == '+' || exponent.front() == '-')) {
    sign = exponent.front();
    exponent.remove_prefix(1);
  }
  // Exactly two digits: the C library writes at least two, and longer ones
  // are cut to their last two.
  std::string result = text.substr(0, e + 1);
  result += sign;
  result += exponent.substr(exponent.size() > 2 ? exponent.size() - 2 : 0);
  return result;
}

bool ExponentFits(double value) {
  if (!std::isfinite(value)) return false;
  const std::string text = StringPrintf("%0.5E", value);
  return text.size() - text.find('E') <= 4;  // "E+dd"
}

}  // namespace zeltocom
