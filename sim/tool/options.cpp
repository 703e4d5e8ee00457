#include "options.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace zeltosim::tool {

const char* const kUsage =
    R"(Usage: zeltosim [--port SETTINGS [--chain SETTINGS]... [--station N]]...

Plays LED analysers and spectrometers on pseudo-terminals. Prints one line per
instrument (serial, rate, slave path), then ZELTOCOM_PORTS=<path>;<path>...,
and runs until SIGINT or SIGTERM. Without --port one default analyser starts.

External trigger: a line "fire N" on standard input sends a pulse to the
trigger input of the instrument on port N (ports count from 1 in the order
printed; a chained instrument has its port's number), "fire" alone to every
port, and so does SIGUSR1. An instrument whose trigger is on
(SETEXTERNALCAPTURE<pwm><range>) captures and sends its report unasked; one
whose trigger is off ignores the pulse.

  --port SETTINGS    an instrument on a new pseudo-terminal
  --chain SETTINGS   an instrument daisy-chained behind the last --port
  --blink FIBER:HZ:DUTY   the last --port's instrument sees a light blinking
                     at HZ with DUTY % lit on fiber FIBER (1-based) during
                     sequences ("CS"), e.g. --blink 1:5:50
  --station N        makes the last --port (or a default one) a station of N
                     such ports, 1..64; every serial of port n gets n appended
                     two digits wide (ZS000001 becomes ZS00000101, ...)
  --verbose          prints on standard error, one line each, what every
                     instrument receives and sends: its serial number, <- or
                     ->, and the bytes, \r, \n, \\ and bytes outside printable
                     ASCII escaped (\x04); a line at another rate than the
                     instrument's is marked with that rate
  --help             this text

SETTINGS is a comma-separated list of key=value pairs (may be empty):
  serial=TEXT        serial number (default ZS000001, ZS000002, ... in order)
  hw=TEXT            hardware descriptor (default "Zelto 05-P"; "-W" in it
                     makes a spectrometer, "-W2" one that counts in us,
                     "Zelto Node" a Node, whose user-calibration values
                     number fibers with three digits)
  firmware=TEXT      firmware text (default F2.20)
  id=TEXT            id text (default 05F)
  eot=0|1            end answers with 0x04 (default 0)
  fibers=N           number of fibers of an analyser, 0..99 (default 2)
  fault=none|silent|echo|slow|syntax|trickle|babble|stream|huge|chatter
  slowdelay=MS       answer delay of fault=slow (default 3000)
  trickle=MS         time between the bytes of fault=trickle (default 1500)
  chatter=MS         time between the unasked lines of fault=chatter (default 10)
  huge=BYTES         length of fault=huge's answers (default 2097152)
  unpadded=0|1       sequence readouts send bare values instead of lines
                     padded with blanks to their width (default 0)
  answerdelay=MS     extra delay before every answer (default 0)
  timescale=X        multiplies capture times (default 1)
  capturems=MS       every capture takes exactly MS ms (default -1: its
                     natural time)
  busce=normal|syntax|never   answer to BUSCE<serial>: silent while capturing
                     and OK once done, SYNTAX ERROR, or never (default normal)
  knowsbus=0|1       understands BUSFREE, BUSGET, BUSC, BUSCE (default 1)
  modecmd=0|1        understands GETINTENSITYMODE (default 1)
  darkannounces=0|1  CAPTUREDARK answers "Acquiring..." first (default 1)
  condition=TEXT     a spectrometer answers captures with TEXT instead of OK
 only with --port:
  baud=RATE          the instrument's rate (default 57600)
  wrongspeed=silent|garbage   answer to lines at another speed (default silent)
  linedelay=0|1      pace output at 11 bits per character (default 0)
)";

namespace {

[[noreturn]] void Bad(const std::string& message) { throw std::invalid_argument(message); }

long Integer(const std::string& key, const std::string& value, long lo, long hi) {
  char* end = nullptr;
  errno = 0;
  const long n = std::strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || n < lo || n > hi)
    Bad(key + "=" + value + ": expected a whole number from " + std::to_string(lo) + " to " +
        std::to_string(hi));
  return n;
}

bool Flag(const std::string& key, const std::string& value) {
  if (value == "1" || value == "on" || value == "true" || value == "yes") return true;
  if (value == "0" || value == "off" || value == "false" || value == "no") return false;
  Bad(key + "=" + value + ": expected 0 or 1");
}

Fault FaultNamed(const std::string& value) {
  if (value == "none") return Fault::None;
  if (value == "silent") return Fault::Silent;
  if (value == "echo") return Fault::Echo;
  if (value == "slow") return Fault::Slow;
  if (value == "syntax") return Fault::SyntaxErrorAll;
  if (value == "trickle") return Fault::Trickle;
  if (value == "babble") return Fault::Babble;
  if (value == "stream") return Fault::Stream;
  if (value == "huge") return Fault::Huge;
  if (value == "chatter") return Fault::Chatter;
  Bad("fault=" + value +
      ": expected none, silent, echo, slow, syntax, trickle, babble, stream, huge or chatter");
}

BusCapture BusCaptureNamed(const std::string& value) {
  if (value == "normal") return BusCapture::Normal;
  if (value == "syntax") return BusCapture::SyntaxError;
  if (value == "never") return BusCapture::NeverDone;
  Bad("busce=" + value + ": expected normal, syntax or never");
}

double Scale(const std::string& value) {
  char* end = nullptr;
  const double x = std::strtod(value.c_str(), &end);
  if (value.empty() || *end != '\0' || !std::isfinite(x) || x < 0.0)
    Bad("timescale=" + value + ": expected a number >= 0");
  return x;
}

// "FIBRE:HZ:DUTY" for an instrument of `fibres` fibres.
FibreLight BlinkFrom(const std::string& value, int fibres) {
  const size_t first = value.find(':');
  const size_t second = first == std::string::npos ? first : value.find(':', first + 1);
  if (second == std::string::npos) Bad("--blink " + value + ": expected FIBER:HZ:DUTY");
  const auto number = [&](const std::string& text) {
    char* end = nullptr;
    const double x = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(x))
      Bad("--blink " + value + ": \"" + text + "\" is no number");
    return x;
  };
  const double hz = number(value.substr(first + 1, second - first - 1));
  const double duty = number(value.substr(second + 1));
  if (!(hz > 0.0) || duty < 0.0 || duty > 100.0)
    Bad("--blink " + value + ": expected HZ above 0 and DUTY from 0 to 100");
  FibreLight light;
  light.fibre =
      static_cast<int>(Integer("--blink fiber", value.substr(0, first), 1, std::max(fibres, 1)));
  light.light = Light::Blinking(hz, duty);
  return light;
}

std::string NonEmpty(const std::string& key, const std::string& value) {
  if (value.empty()) Bad(key + " must not be empty");
  return value;
}

// Keys every instrument has; false when `key` is not one of them.
bool SetInstrumentKey(Config& c, const std::string& key, const std::string& value) {
  if (key == "serial") c.serial = NonEmpty(key, value);
  else if (key == "hw") c.hardware = value;
  else if (key == "firmware") c.firmware = value;
  else if (key == "id") c.id = value;
  else if (key == "eot") c.eot = Flag(key, value);
  else if (key == "fibers")
    c.fibers.assign(static_cast<size_t>(Integer(key, value, 0, 99)), Fiber{});
  else if (key == "fault") c.fault = FaultNamed(value);
  else if (key == "slowdelay") c.slowDelayMs = static_cast<int>(Integer(key, value, 0, 600000));
  else if (key == "trickle") c.trickleMs = static_cast<int>(Integer(key, value, 0, 600000));
  else if (key == "chatter") c.chatterMs = static_cast<int>(Integer(key, value, 1, 600000));
  else if (key == "huge")
    c.hugeAnswerBytes = static_cast<std::size_t>(Integer(key, value, 1, 1L << 30));
  else if (key == "unpadded") c.unpaddedReadouts = Flag(key, value);
  else if (key == "answerdelay") c.answerDelayMs = static_cast<int>(Integer(key, value, 0, 600000));
  else if (key == "timescale") c.captureTimeScale = Scale(value);
  else if (key == "capturems") c.captureMs = static_cast<int>(Integer(key, value, -1, 600000));
  else if (key == "busce") c.busCapture = BusCaptureNamed(value);
  else if (key == "knowsbus") c.knowsBus = Flag(key, value);
  else if (key == "modecmd") c.hasIntensityModeCommand = Flag(key, value);
  else if (key == "darkannounces") c.darkAnnounces = Flag(key, value);
  else if (key == "condition") c.captureCondition = value;
  else return false;
  return true;
}

bool SetLineKey(LineOptions& line, const std::string& key, const std::string& value) {
  if (key == "baud") line.baud = static_cast<int>(Integer(key, value, 1, 20'000'000));
  else if (key == "linedelay") line.lineDelay = Flag(key, value);
  else if (key == "wrongspeed") {
    if (value == "silent") line.wrongSpeed = WrongSpeed::Silent;
    else if (value == "garbage") line.wrongSpeed = WrongSpeed::Garbage;
    else Bad("wrongspeed=" + value + ": expected silent or garbage");
  } else return false;
  return true;
}

std::vector<std::pair<std::string, std::string>> Pairs(const std::string& settings) {
  std::vector<std::pair<std::string, std::string>> pairs;
  size_t start = 0;
  while (start < settings.size()) {
    size_t end = settings.find(',', start);
    if (end == std::string::npos) end = settings.size();
    const std::string item = settings.substr(start, end - start);
    const size_t eq = item.find('=');
    if (eq == std::string::npos || eq == 0) Bad("\"" + item + "\": expected key=value");
    pairs.emplace_back(item.substr(0, eq), item.substr(eq + 1));
    start = end + 1;
  }
  return pairs;
}

std::string DefaultSerial(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "ZS%06d", number);
  return text;
}

Config InstrumentFrom(const std::string& settings, int number, LineOptions* line) {
  Config c;
  c.serial = DefaultSerial(number);
  for (const auto& [key, value] : Pairs(settings)) {
    if (SetInstrumentKey(c, key, value)) continue;
    if (line != nullptr && SetLineKey(*line, key, value)) continue;
    const bool lineKey = key == "baud" || key == "wrongspeed" || key == "linedelay";
    Bad(lineKey ? key + " belongs to the line: give it with --port, not --chain"
                : "unknown key \"" + key + "\"");
  }
  return c;
}

// A station's ports are copies of one port whose serial numbers, the chained
// instruments' included, carry the port's number.
std::vector<PortSetup> Expanded(const PortSetup& setup) {
  if (setup.stationSize == 0) return {setup};
  std::vector<PortSetup> copies;
  for (int number = 1; number <= setup.stationSize; ++number) {
    PortSetup copy = setup;
    copy.stationSize = 0;
    copy.master.serial = StationSerial(setup.master.serial, number);
    for (Config& chained : copy.chained) chained.serial = StationSerial(chained.serial, number);
    copies.push_back(std::move(copy));
  }
  return copies;
}

}  // namespace

Options ParseOptions(const std::vector<std::string>& args) {
  Options options;
  int number = 0;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string arg = args[i];
    std::string value;
    const size_t eq = arg.find('=');
    if (arg.starts_with("--") && eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg.resize(eq);
    } else if (arg == "--port" || arg == "--chain" || arg == "--station" || arg == "--blink") {
      if (i + 1 >= args.size())
        Bad(arg == "--station" ? "--station needs its number of ports"
            : arg == "--blink" ? "--blink needs FIBER:HZ:DUTY"
                               : arg + " needs its settings (use \"\" for the defaults)");
      value = args[++i];
    }
    if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg == "--verbose" || arg == "-v") {
      options.verbose = true;
    } else if (arg == "--port") {
      PortSetup setup;
      setup.master = InstrumentFrom(value, ++number, &setup.line);
      options.ports.push_back(std::move(setup));
    } else if (arg == "--chain") {
      if (options.ports.empty()) Bad("--chain needs a --port before it");
      options.ports.back().chained.push_back(InstrumentFrom(value, ++number, nullptr));
    } else if (arg == "--blink") {
      if (options.ports.empty()) Bad("--blink needs a --port before it");
      PortSetup& port = options.ports.back();
      port.lights.push_back(BlinkFrom(value, static_cast<int>(port.master.fibers.size())));
    } else if (arg == "--station") {
      if (options.ports.empty()) {
        PortSetup setup;
        setup.master = InstrumentFrom("", ++number, nullptr);
        options.ports.push_back(std::move(setup));
      }
      options.ports.back().stationSize = static_cast<int>(Integer("--station", value, 1, 64));
    } else {
      Bad("unknown option \"" + args[i] + "\"");
    }
  }
  if (options.ports.empty()) {
    PortSetup setup;
    setup.master.serial = DefaultSerial(1);
    options.ports.push_back(setup);
  }
  std::vector<PortSetup> ports;
  for (const PortSetup& setup : options.ports)
    for (PortSetup& port : Expanded(setup)) ports.push_back(std::move(port));
  options.ports = std::move(ports);
  return options;
}

}  // namespace zeltosim::tool
