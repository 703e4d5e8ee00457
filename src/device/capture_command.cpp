#include "device/capture_command.hpp"

#include "frame/utils.hpp"

namespace zeltocom {

std::string BuildCaptureCommand(std::string_view prefix, int pwm, int range, int pwmFrames) {
  std::string command(prefix);
  if (range != 0) command += StringPrintf("%d", range);
  if (pwm == 0) return command;
  command += "PWM";
  if (pwmFrames != 0) command += StringPrintf("%02d", pwmFrames);
  return command;
}

}  // namespace zeltocom
