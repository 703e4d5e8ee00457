// Simulated instruments on pseudo-terminals.
//
// A SimPort creates a pseudo-terminal and plays the instrument at its master
// side; a host opens the slave path exactly as it would open a USB serial
// port. Further instruments can be daisy-chained behind the one on the port.
// Nothing here knows about the ZeltoCom library: the simulator only speaks the
// instruments' line protocol.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zeltosim {

// How an instrument misbehaves.
enum class Fault {
  None,
  Silent,          // reads everything, answers nothing
  Echo,            // sends every received line back instead of answering
  Slow,            // answers correctly, but only after Config::slowDelayMs
  SyntaxErrorAll,  // answers every command with "SYNTAX ERROR"
  Trickle,         // answers correctly, one byte every Config::trickleMs
  Babble,          // answers any command with digits, without end, as fast as
                   // the line takes them, until the fault is cleared
  Stream,          // the same, but paced at the line's rate, as a real line
                   // that streams at its full speed
  Huge,            // answers any command with Config::hugeAnswerBytes digits
                   // and a line end, at once
  Chatter,         // answers commands, and between them sends a line
                   // "DATA <n>" (n = 1, 2, ...) every Config::chatterMs
};

// How an instrument answers "BUSCE<serial>", the question whether the capture
// that "BUSC..." started has ended.
enum class BusCapture {
  Normal,       // silent while capturing, "OK" once done
  SyntaxError,  // refuses the question, as it refuses unknown commands
  NeverDone,    // silent for ever
};

// What the instrument sends when a line arrives at a speed other than its own.
enum class WrongSpeed { Silent, Garbage };

// What a capture reports for one fibre of an LED analyser.
enum class Range { Normal, OverRange, UnderRange };

// One measuring channel of an LED analyser: the light it currently sees.
struct Fiber {
  double red = 0.30;  // relative colour; the three need not sum to 1
  double green = 0.50;
  double blue = 0.20;
  double intensity = 1200.0;  // linear intensity
  Range force = Range::Normal;
};

// The light one fibre sees during a sequence, in linear intensities: `on`
// for `litMs` at the start of every `periodMs`, `off` for the rest, the
// first period beginning `delayMs` after the sequence starts (`off` before).
// A period of 0 is a steady light at `on`.
struct Light {
  double on = 1200.0;
  double off = 0.0;
  double periodMs = 0.0;
  double litMs = 0.0;
  double delayMs = 0.0;

  static Light Steady(double intensity);
  static Light Blinking(double hz, double dutyPercent, double on = 1200.0, double off = 0.0);
  // Place `place` (0-based) of `places` fibres lit one after the other for
  // `dwellMs` each, round after round.
  static Light Running(int place, int places, double dwellMs, double on = 1200.0, double off = 0.0);
};

struct Config {
  std::string serial = "ZS000001";      // "GETSERIAL"
  std::string hardware = "Zelto 05-P";  // "GETHW"; "-W" / "-W2" makes a spectrometer
  std::string firmware = "F2.20";       // "GETVERSION"
  std::string id = "05F";               // "ID"
  bool eot = false;                     // end answers with CR LF 0x04 instead of CR LF
  bool knowsBus = true;                 // false: BUSFREE, BUSGET, BUSC, BUSCE are syntax errors
  bool hasIntensityModeCommand = true;  // false: the mode shows only in GETSTATUS
  bool darkAnnounces = true;            // CAPTUREDARK answers "Acquiring..." before the result
  Fault fault = Fault::None;
  int slowDelayMs = 3000;         // answer delay of Fault::Slow
  int trickleMs = 1500;           // time between the bytes of Fault::Trickle
  bool unpaddedReadouts = false;  // sequence readouts send bare values, not right-aligned
                                  // in their lines' width
  int answerDelayMs = 0;          // extra delay before every answer
  int chatterMs = 10;             // time between the lines of Fault::Chatter
  std::size_t hugeAnswerBytes = std::size_t{2} << 20;  // length of Fault::Huge's answers
  double captureTimeScale = 1.0;                       // multiplies the time a capture takes
  int captureMs = -1;  // >= 0: every capture takes exactly this long
  BusCapture busCapture = BusCapture::Normal;
  std::string captureCondition;  // spectrometer: answer captures with this text instead of "OK"
  std::vector<Fiber> fibers = {Fiber{}, Fiber{}};  // LED analysers; spectrometers ignore it
};

// The serial line of a SimPort.
struct LineOptions {
  int baud = 57600;  // the instrument's own rate
  WrongSpeed wrongSpeed = WrongSpeed::Silent;
  bool lineDelay = false;  // pace output at 11 bits per character
  // Gets a line for each line the port receives and each burst its
  // instruments send: "<serial> <- <bytes>" and "<serial> -> <bytes>", the
  // bytes outside printable ASCII escaped (\r, \n, \xNN, and \\). Called
  // from the port's thread, so a sink shared by ports must take its own
  // lock. None when empty.
  std::function<void(const std::string&)> trace = nullptr;
};

// One line as it arrived on the wire.
struct ReceivedLine {
  std::string text;         // as sent, letter case kept, without CR LF
  int lineBaud = 0;         // the speed the host had configured when it arrived
  bool understood = false;  // the speed matched and an instrument handled it
  // Fault::Chatter: the number of the last "DATA <n>" line that the host
  // could read before it wrote this line (sent a few milliseconds before
  // the line arrived); 0 when none. A later one raced the line.
  int chatterBefore = 0;
};

// The settings one instrument keeps per adjustment set.
struct Settings {
  int factor = 1;
  int averages = 1;
  int pwm = 0;
  long customTime = -1;  // in the instrument's own unit (us on "-W2", ms otherwise); -1 = none
  bool logarithmic = true;
};

// ---- User calibration ----

// A user-calibration value: the one in use, and whether it was stored (SET,
// kept through a power cycle) or only put (PUT, in use until then).
template <typename T>
struct CalValue {
  T value;
  bool stored = true;
};

// What an LED analyser keeps for one fibre's user calibration. Its readings
// follow it: x and y plus the offsets, the dominant wavelength plus its
// offset, intensities times gain / 100, the absolute intensity times the
// factor.
struct UserCalibration {
  CalValue<double> xOffset{0.0};
  CalValue<double> yOffset{0.0};
  CalValue<int> wavelengthOffset{0};
  CalValue<int> intensityGain{100};  // percent, 50..150
  CalValue<double> absIntFactor{1.0};
  // Inputs of the colour matrix per reference light (red, green, blue): the
  // raw readings put with PUT<colour><R|G|B><nn>, and the true x, y and
  // intensity learned with LEARN<colour><x|y|int><nn>.
  std::array<std::array<unsigned, 3>, 3> rgbRaw{};
  std::array<std::array<double, 3>, 3> rgbLearned{};
  bool rgbMatrix = false;  // computed by SETRGBM<nn>, until RESETRGBM<nn>
};

class Instrument;

class SimPort {
 public:
  explicit SimPort(Config master, LineOptions line = {});
  ~SimPort();
  SimPort(const SimPort&) = delete;
  SimPort& operator=(const SimPort&) = delete;

  // The slave path a host opens, such as /dev/pts/7.
  const std::string& path() const;
  // The instrument on the port itself.
  Instrument& master();
  // Adds an instrument reached through the master with "BUSGET<serial>".
  Instrument& chain(Config chained);
  // The instrument's current rate (it changes after "SETBAUD<rate>").
  int baud() const;
  // Serial number of the instrument that holds the line now (the master's
  // when the bus is free).
  std::string busHolder() const;

  // Every non-empty line that arrived, in order.
  std::vector<ReceivedLine> lineLog() const;
  // Lines of lineLog() whose text equals `command`, ignoring letter case.
  int countReceived(const std::string& command) const;
  void clearLog();

  // A pulse on the external trigger input of the instrument on the port.
  // When its trigger is on ("SETEXTERNALCAPTURE<pwm><range>"), it waits
  // its pre-delay, captures, waits its post-delay and sends unasked its
  // readings for the output type ("SETEXTERNALOUTPUT<type>"), one line per
  // fibre, or "OK" (type NONE, and spectrometers). Off, it ignores pulses.
  void fireTrigger();

  // Pulls the plug: the instrument stops and the pseudo-terminal goes away,
  // so the host's side of the line hangs up. For good.
  void unplug();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Behaviour and state of one instrument. All members are safe to call while
// the port's thread runs.
class Instrument {
 public:
  ~Instrument();
  Instrument(const Instrument&) = delete;
  Instrument& operator=(const Instrument&) = delete;

  const std::string& serial() const;
  bool isSpectrometer() const;
  // Lines this instrument answered or acted on, as received.
  std::vector<std::string> received() const;
  void clearReceived();

  void setFault(Fault fault);
  void setAnswerDelayMs(int ms);
  void setChatterMs(int ms);  // > 0
  void setSlowDelayMs(int ms);
  void setUnpaddedReadouts(bool on);
  void setCaptureTimeScale(double scale);
  void setCaptureMs(int ms);  // -1: captures take their natural time again
  void setBusCapture(BusCapture behaviour);
  void setEot(bool on);
  void setFiber(int index, const Fiber& fiber);  // 0-based
  void setCaptureCondition(const std::string& text);
  void setDarkAnnounces(bool on);
  // From now on answers `command` (letter case ignored) with the line
  // `answer` instead of its own, whatever it is; an empty answer gives the
  // command back its own.
  void setAnswer(const std::string& command, const std::string& answer);
  // Sequences: the light fibre `index` (0-based) sees; until one is set, a
  // fibre's samples all show its Fiber's intensity.
  void setLight(int index, const Light& light);
  // A light running across all fibres, each lit for `dwellMs` in turn.
  void setRunningLight(double dwellMs, double on = 1200.0, double off = 0.0);

  bool eot() const;
  int adjustmentSet() const;
  Settings settings() const;  // of the current adjustment set
  int captures() const;       // captures (broadcast ones too) and dark acquisitions so far
  std::string lastCaptureCommand() const;
  UserCalibration userCalibration(int index) const;  // of a fibre, 0-based

  struct State;  // internal

 private:
  friend class SimPort;
  explicit Instrument(Config config);
  std::unique_ptr<State> state_;
};

// "path1;path2;..." for ZELTOCOM_PORTS.
std::string PortsVariable(const std::vector<const SimPort*>& ports);

// A test station: `count` ports (1..99), each with one instrument of `base`'s
// settings whose serial number is StationSerial(base.serial, port number).
class Station {
 public:
  explicit Station(int count, Config base = {}, LineOptions line = {});
  ~Station();
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  SimPort& port(int index);  // 0-based
  int size() const;
  // "path1;path2;..." of all ports, in order.
  std::string portsVariable() const;

 private:
  std::vector<std::unique_ptr<SimPort>> ports_;
};

// `base` with `number` (1..99) appended two digits wide; the base is cut so
// that the result has at most 14 characters.
std::string StationSerial(const std::string& base, int number);

}  // namespace zeltosim
