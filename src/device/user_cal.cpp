#include "device/user_cal.hpp"

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "device/command.hpp"
#include "device/identify.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace {

constexpr unsigned long kReadMs = 300;
constexpr unsigned long kOffsetWriteMs = 500;
constexpr unsigned long kWriteMs = 300;

std::string FiberText(const s_CommPort* port, int fiber) {
  return StringPrintf(port->deviceType == DEVTYPE_NODE ? "%03d" : "%02d", fiber);
}

// SET keeps a value in the instrument; PUT only uses it until power-off.
std::string Form(bool set) { return set ? "SET" : "PUT"; }

// The answer, when it came in time and was no refusal.
std::optional<std::string> Ask(s_CommPort* port, const std::string& command,
                               unsigned long timeoutMs) {
  t_comresponse response;
  if (CMD_SendCommand(port, command, timeoutMs, &response) != 1) return std::nullopt;
  return std::move(response.data);
}

std::optional<double> ReadDecimal(s_CommPort* port, const std::string& command) {
  std::optional<std::string> answer = Ask(port, command, kReadMs);
  if (!answer) return std::nullopt;
  FormatDecimal(*answer);
  double value = 0;
  if (std::sscanf(answer->c_str(), "%lf", &value) != 1) return std::nullopt;
  return value;
}

std::optional<int> ReadInteger(s_CommPort* port, const std::string& command) {
  const std::optional<std::string> answer = Ask(port, command, kReadMs);
  int value = 0;
  if (!answer || std::sscanf(answer->c_str(), "%d", &value) != 1) return std::nullopt;
  return value;
}

// Always signed: "+0.000", "-0.250".
std::string OffsetText(float value) { return WithDecimalPoint(StringPrintf("%+0.3f", value)); }

bool Written(s_CommPort* port, const std::string& command, unsigned long timeoutMs) {
  return Ask(port, command, timeoutMs).has_value();
}

// Only an exchange that gave 0 counts as failed here.
int SentAtLeast(s_CommPort* port, const std::string& command) {
  t_comresponse response;
  return CMD_SendCommand(port, command, kWriteMs, &response) != 0 ? 1 : 0;
}

}  // namespace

int CMD_Get_xyOffsets(s_CommPort* port, int fiber, float* x, float* y) {
  const std::string number = FiberText(port, fiber);
  const std::optional<double> readX = ReadDecimal(port, "GETXOFFSET" + number);
  if (!readX) return 0;
  *x = static_cast<float>(*readX);
  const std::optional<double> readY = ReadDecimal(port, "GETYOFFSET" + number);
  if (!readY) return 0;
  *y = static_cast<float>(*readY);
  return 1;
}

int CMD_Set_xyOffsets(s_CommPort* port, int fiber, float x, float y, int setMode) {
  const std::string head = Form(setMode != 0);
  const std::string number = FiberText(port, fiber);
  if (!Written(port, head + "XOFFSET" + number + OffsetText(x), kOffsetWriteMs)) return 0;
  return Written(port, head + "YOFFSET" + number + OffsetText(y), kOffsetWriteMs) ? 1 : 0;
}

int CMD_Get_WavelengthOffset(s_CommPort* port, int fiber, int* offset) {
  const std::optional<int> value =
      ReadInteger(port, "GETWAVELENGTHOFFSET" + FiberText(port, fiber));
  if (!value) return 0;
  *offset = *value;
  return 1;
}

int CMD_Set_WavelengthOffset(s_CommPort* port, int fiber, int offset, int setMode) {
  const std::string command = Form(setMode != 0) + "WAVELENGTHOFFSET" + FiberText(port, fiber) +
                              StringPrintf("%+03d", offset);
  return Written(port, command, kOffsetWriteMs) ? 1 : 0;
}

int CMD_Get_IntensityGain(s_CommPort* port, int fiber, int* gain) {
  const std::optional<int> value = ReadInteger(port, "GETINTGAIN" + FiberText(port, fiber));
  if (!value) return 0;
  *gain = *value;
  return 1;
}

int CMD_Set_IntensityGain(s_CommPort* port, int fiber, int gain, int setMode) {
  if (gain < kMinIntensityGain || gain > kMaxIntensityGain) return 0;
  return SentAtLeast(port, Form(setMode == 1) + "INTGAIN" + FiberText(port, fiber) +
                               StringPrintf("%03d", gain));
}

int CMD_Get_AbsoluteIntensityFactor(s_CommPort* port, int fiber, double* factor) {
  const std::optional<double> value = ReadDecimal(port, "GETABSINTMULT" + FiberText(port, fiber));
  if (!value) return 0;
  *factor = *value;
  return 1;
}

int CMD_Set_AbsoluteIntensityFactor(s_CommPort* port, int fiber, double factor, int setMode) {
  return SentAtLeast(port, Form(setMode == 1) + "ABSINTMULT" + FiberText(port, fiber) +
                               FormatExponential(factor));
}

std::string WithDecimalPoint(std::string text) {
  str_replace(text, ",", ".");
  return text;
}

std::string FormatExponential(double value) {
  const std::string text = WithDecimalPoint(StringPrintf("%0.5E", value));
  const std::size_t e = text.find('E');
  if (e == std::string::npos) return text;  // not a number, or infinite
  std::string_view exponent = std::string_view(text).substr(e + 1);
  char sign = '+';
  if (!exponent.empty() && (exponent.front() == '+' || exponent.front() == '-')) {
    sign = exponent.front();
    exponent.remove_prefix(1);
  }
  // Exactly two digits: a lone one padded, longer ones cut to their last two.
  std::string result = text.substr(0, e + 1);
  result += sign;
  if (exponent.size() < 2) result += '0';
  result += exponent.substr(exponent.size() > 2 ? exponent.size() - 2 : 0);
  return result;
}

}  // namespace zeltocom
