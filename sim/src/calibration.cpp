// An LED analyser's user calibration per fibre: chromaticity and wavelength
// offsets, intensity gain, absolute-intensity factor (each read with GET,
// stored with SET or only put in use with PUT), and the inputs of the colour
// matrix. Arguments have fixed widths; anything else is a syntax error, as
// the instrument answers it.
#include <array>
#include <cctype>
#include <cstdio>
#include <initializer_list>
#include <stdexcept>

#include "instrument_state.hpp"

namespace zeltosim {
namespace detail {
namespace {

using State = Instrument::State;

// Reads an argument field by field.
class Fields {
 public:
  explicit Fields(std::string_view text) : rest_(text) {}

  bool done() const { return rest_.empty(); }

  bool literal(std::string_view text) {
    if (!rest_.starts_with(text)) return false;
    rest_.remove_prefix(text.size());
    return true;
  }

  // The index of the first of `choices` that follows.
  template <typename Choices = std::initializer_list<std::string_view>>
  std::optional<size_t> oneOf(const Choices& choices) {
    size_t index = 0;
    for (std::string_view choice : choices) {
      if (literal(choice)) return index;
      ++index;
    }
    return std::nullopt;
  }

  // Exactly `count` digits.
  std::optional<long> digits(size_t count) {
    if (rest_.size() < count) return std::nullopt;
    long value = 0;
    for (size_t i = 0; i < count; ++i) {
      if (!std::isdigit(static_cast<unsigned char>(rest_[i]))) return std::nullopt;
      value = value * 10 + (rest_[i] - '0');
    }
    rest_.remove_prefix(count);
    return value;
  }

  std::optional<int> sign() {
    const std::optional<size_t> which = oneOf({"+", "-"});
    if (!which) return std::nullopt;
    return *which == 0 ? 1 : -1;
  }

  // "<d>.<decimals digits>".
  std::optional<double> decimal(size_t decimals) {
    const std::optional<long> whole = digits(1);
    if (!whole || !literal(".")) return std::nullopt;
    const std::optional<long> fraction = digits(decimals);
    if (!fraction) return std::nullopt;
    double scale = 1.0;
    for (size_t i = 0; i < decimals; ++i) scale *= 10.0;
    return static_cast<double>(*whole) + static_cast<double>(*fraction) / scale;
  }

  // "d.dddddE+dd" with a mantissa from 1 to 9.99999: a positive number.
  std::optional<double> exponential() {
    const std::optional<double> mantissa = decimal(5);
    if (!mantissa || *mantissa < 1.0 || !literal("E")) return std::nullopt;
    const std::optional<int> sign = this->sign();
    const std::optional<long> exponent = digits(2);
    if (!sign || !exponent) return std::nullopt;
    double value = *mantissa;
    for (long i = 0; i < *exponent; ++i) value = *sign > 0 ? value * 10.0 : value / 10.0;
    return value;
  }

 private:
  std::string_view rest_;
};

Reply Ok(const State& st) { return SayOnce(st, {"OK"}); }

// A Node numbers its fibres with three digits in the value commands.
size_t ValueFibreDigits(const State& st) {
  return st.config.hardware.find("Zelto Node") != std::string::npos ? 3 : 2;
}

// The 0-based index of the fibre numbered next.
std::optional<size_t> Fibre(const State& st, Fields& args, size_t digits) {
  const std::optional<long> number = args.digits(digits);
  if (!number || *number < 1 || static_cast<size_t>(*number) > st.calibration.size()) {
    return std::nullopt;
  }
  return static_cast<size_t>(*number - 1);
}

std::string Shown(const char* format, auto value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// ---- values: GET<word><fibre>, SET<word><fibre><value>, PUT<word><fibre><value> ----

template <typename T>
struct Quantity {
  std::string_view word;
  CalValue<T> UserCalibration::*store;
  std::optional<T> (*parse)(Fields&);
  std::string (*show)(T);
};

std::optional<double> Offset(Fields& args) {
  const std::optional<int> sign = args.sign();
  const std::optional<double> value = sign ? args.decimal(3) : std::nullopt;
  if (!value) return std::nullopt;
  return *sign * *value;
}

// "%+03d": a sign and two or three digits.
std::optional<int> WavelengthOffset(Fields& args) {
  const std::optional<int> sign = args.sign();
  if (!sign) return std::nullopt;
  std::optional<long> value = args.digits(3);
  if (!value) value = args.digits(2);
  if (!value) return std::nullopt;
  return *sign * static_cast<int>(*value);
}

std::optional<int> Gain(Fields& args) {
  const std::optional<long> gain = args.digits(3);
  if (!gain || *gain < 50 || *gain > 150) return std::nullopt;
  return static_cast<int>(*gain);
}

std::optional<double> Factor(Fields& args) { return args.exponential(); }

const Quantity<double> kXOffset{"XOFFSET", &UserCalibration::xOffset, Offset,
                                [](double v) { return Shown("%+.3f", v); }};
const Quantity<double> kYOffset{"YOFFSET", &UserCalibration::yOffset, Offset,
                                [](double v) { return Shown("%+.3f", v); }};
const Quantity<int> kWavelengthOffset{"WAVELENGTHOFFSET", &UserCalibration::wavelengthOffset,
                                      WavelengthOffset, [](int v) { return Shown("%d", v); }};
const Quantity<int> kGain{"INTGAIN", &UserCalibration::intensityGain, Gain,
                          [](int v) { return Shown("%d", v); }};
const Quantity<double> kFactor{"ABSINTMULT", &UserCalibration::absIntFactor, Factor,
                               [](double v) { return Shown("%.5E", v); }};

template <typename T>
std::optional<Reply> ValueCommand(State& st, std::string_view upper, const Quantity<T>& q) {
  const std::string_view form = upper.substr(0, 3);
  if ((form != "GET" && form != "SET" && form != "PUT") || !upper.substr(3).starts_with(q.word)) {
    return std::nullopt;
  }
  Fields args(upper.substr(3 + q.word.size()));
  const std::optional<size_t> fibre = Fibre(st, args, ValueFibreDigits(st));
  if (!fibre) return SyntaxError(st);
  CalValue<T>& value = st.calibration[*fibre].*q.store;
  if (form == "GET") return args.done() ? SayOnce(st, {q.show(value.value)}) : SyntaxError(st);
  const std::optional<T> written = q.parse(args);
  if (!written || !args.done()) return SyntaxError(st);
  value = CalValue<T>{*written, form == "SET"};
  return Ok(st);
}

// ---- the colour matrix ----

constexpr std::array<std::string_view, 3> kColours = {"RED", "GREEN", "BLUE"};

// PUT<colour><R|G|B><nn><7 digits>: a raw reading under a reference light.
std::optional<Reply> PutRaw(State& st, std::string_view upper) {
  Fields args(upper);
  if (!args.literal("PUT")) return std::nullopt;
  const std::optional<size_t> colour = args.oneOf(kColours);
  if (!colour) return std::nullopt;
  const std::optional<size_t> channel = args.oneOf({"R", "G", "B"});
  const std::optional<size_t> fibre = channel ? Fibre(st, args, 2) : std::nullopt;
  const std::optional<long> counts = fibre ? args.digits(7) : std::nullopt;
  if (!counts || !args.done()) return SyntaxError(st);
  st.calibration[*fibre].rgbRaw[*colour][*channel] = static_cast<unsigned>(*counts);
  return Ok(st);
}

// LEARN<colour>X<nn>0.6400, ...Y<nn>0.3300, ...INT<nn>1.23450E+03: the
// reference light's true values.
std::optional<Reply> Learn(State& st, std::string_view upper) {
  Fields args(upper);
  if (!args.literal("LEARN")) return std::nullopt;
  const std::optional<size_t> colour = args.oneOf(kColours);
  const std::optional<size_t> what = colour ? args.oneOf({"X", "Y", "INT"}) : std::nullopt;
  const std::optional<size_t> fibre = what ? Fibre(st, args, 2) : std::nullopt;
  if (!fibre) return SyntaxError(st);
  const std::optional<double> value = *what == 2 ? args.exponential() : args.decimal(4);
  if (!value || !args.done()) return SyntaxError(st);
  st.calibration[*fibre].rgbLearned[*colour][*what] = *value;
  return Ok(st);
}

// A matrix needs a raw reading and a true intensity of every light.
bool MatrixComputable(const UserCalibration& cal) {
  for (size_t colour = 0; colour < 3; ++colour) {
    const auto& raw = cal.rgbRaw[colour];
    if ((raw[0] == 0 && raw[1] == 0 && raw[2] == 0) || cal.rgbLearned[colour][2] <= 0.0) {
      return false;
    }
  }
  return true;
}

// <name><nn>: commands on a fibre's colour matrix.
std::optional<Reply> MatrixCommand(State& st, std::string_view upper) {
  Fields args(upper);
  const std::optional<size_t> which = args.oneOf({"SETRGBM", "RESETRGBM", "RESETCALMODE"});
  if (!which) return std::nullopt;
  const std::optional<size_t> fibre = Fibre(st, args, 2);
  if (!fibre || !args.done()) return SyntaxError(st);
  UserCalibration& cal = st.calibration[*fibre];
  switch (*which) {
    case 0:
      if (!MatrixComputable(cal)) return SyntaxError(st);
      cal.rgbMatrix = true;
      break;
    case 1: cal.rgbMatrix = false; break;
    default:  // leaves calibration mode: what was put and learned is gone
      cal.rgbRaw = {};
      cal.rgbLearned = {};
      break;
  }
  return Ok(st);
}

}  // namespace

std::optional<Reply> ExecuteCalibration(Instrument::State& st, std::string_view upper) {
  if (st.spectrometer) return std::nullopt;
  if (auto reply = ValueCommand(st, upper, kXOffset)) return reply;
  if (auto reply = ValueCommand(st, upper, kYOffset)) return reply;
  if (auto reply = ValueCommand(st, upper, kWavelengthOffset)) return reply;
  if (auto reply = ValueCommand(st, upper, kGain)) return reply;
  if (auto reply = ValueCommand(st, upper, kFactor)) return reply;
  if (auto reply = PutRaw(st, upper)) return reply;
  if (auto reply = Learn(st, upper)) return reply;
  return MatrixCommand(st, upper);
}

const std::vector<std::string_view>& CalibrationUsage() {
  static const std::vector<std::string_view> usage = {
      "GETXOFFSET<nn>",
      "SETXOFFSET<nn><+d.ddd>",
      "PUTXOFFSET<nn><+d.ddd>",
      "GETYOFFSET<nn>",
      "SETYOFFSET<nn><+d.ddd>",
      "PUTYOFFSET<nn><+d.ddd>",
      "GETWAVELENGTHOFFSET<nn>",
      "SETWAVELENGTHOFFSET<nn><+dd>",
      "PUTWAVELENGTHOFFSET<nn><+dd>",
      "GETINTGAIN<nn>",
      "SETINTGAIN<nn><050-150>",
      "PUTINTGAIN<nn><050-150>",
      "GETABSINTMULT<nn>",
      "SETABSINTMULT<nn><d.dddddE+dd>",
      "PUTABSINTMULT<nn><d.dddddE+dd>",
      "PUT<RED|GREEN|BLUE><R|G|B><nn><ddddddd>",
      "LEARN<RED|GREEN|BLUE><x|y><nn><d.dddd>",
      "LEARN<RED|GREEN|BLUE>int<nn><d.dddddE+dd>",
      "SETRGBM<nn>",
      "RESETRGBM<nn>",
      "RESETCALMODE<nn>",
  };
  return usage;
}

}  // namespace detail

UserCalibration Instrument::userCalibration(int index) const {
  std::lock_guard lock(state_->mutex);
  const auto count = static_cast<int>(state_->calibration.size());
  if (index < 0 || index >= count) {
    throw std::out_of_range("userCalibration: index " + std::to_string(index) + " outside 0.." +
                            std::to_string(count - 1));
  }
  return state_->calibration[static_cast<size_t>(index)];
}

}  // namespace zeltosim
