#include <cctype>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "instrument_state.hpp"

namespace zeltosim {
namespace {

void CheckNonNegative(int value, const char* what) {
  if (value < 0) throw std::invalid_argument(std::string(what) + " must not be negative");
}

void CheckCaptureMs(int ms) {
  if (ms < -1) throw std::invalid_argument("captureMs must be -1 (natural time) or >= 0");
}

Config Checked(Config c) {
  if (c.serial.empty()) throw std::invalid_argument("instrument serial number must not be empty");
  CheckNonNegative(c.slowDelayMs, "slowDelayMs");
  CheckNonNegative(c.trickleMs, "trickleMs");
  CheckNonNegative(c.answerDelayMs, "answerDelayMs");
  if (c.chatterMs <= 0) throw std::invalid_argument("chatterMs must be positive");
  if (!(c.captureTimeScale >= 0.0) || !std::isfinite(c.captureTimeScale))
    throw std::invalid_argument("captureTimeScale must be a finite number >= 0");
  CheckCaptureMs(c.captureMs);
  if (c.fibers.size() > 99) throw std::invalid_argument("an analyser has at most 99 fibres");
  return c;
}

}  // namespace

Instrument::State::State(Config c)
    : config(Checked(std::move(c))),
      spectrometer(config.hardware.find("-W") != std::string::npos),
      microseconds(config.hardware.find("-W2") != std::string::npos),
      captured(config.fibers.size(), Fiber{0.0, 0.0, 0.0, 0.0, Range::Normal}),
      calibration(config.fibers.size()) {}

namespace detail {

std::string Upper(std::string text) {
  for (char& ch : text) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  return text;
}

Message Say(const Instrument::State& st, std::vector<std::string> lines, int delayMs) {
  return Message{delayMs, std::move(lines), st.config.eot};
}

Reply SayOnce(const Instrument::State& st, std::vector<std::string> lines) {
  Reply reply;
  reply.messages.push_back(Say(st, std::move(lines)));
  return reply;
}

Reply SyntaxError(const Instrument::State& st) { return SayOnce(st, {"SYNTAX ERROR"}); }

namespace {

Reply Planned(Instrument::State& st, const std::string& line, const Behaviour& normal) {
  st.received.push_back(line);
  Reply reply;
  switch (st.config.fault) {
    case Fault::Silent: return reply;
    case Fault::Echo:
      // An echoing line driver knows nothing of end-of-transmission bytes.
      reply.messages.push_back(Message{0, {line}, false});
      break;
    case Fault::SyntaxErrorAll: reply = SyntaxError(st); break;
    case Fault::Babble:
    case Fault::Stream: reply.endless = true; return reply;
    case Fault::Huge:
      reply.messages.push_back(Say(st, {std::string(st.config.hugeAnswerBytes, '7')}));
      return reply;
    case Fault::None:
    case Fault::Slow:
    case Fault::Trickle:
    case Fault::Chatter: reply = normal(st); break;
  }
  if (st.config.fault == Fault::Trickle) reply.byteIntervalMs = st.config.trickleMs;
  int lead = st.config.answerDelayMs;
  if (st.config.fault == Fault::Slow) lead += st.config.slowDelayMs;
  if (!reply.messages.empty()) reply.messages.front().delayMs += lead;
  return reply;
}

}  // namespace

Reply Respond(Instrument::State& st, const std::string& line, const Behaviour& normal) {
  std::lock_guard lock(st.mutex);
  Reply reply = Planned(st, line, normal);
  reply.from = st.config.serial;
  return reply;
}

}  // namespace detail

Instrument::Instrument(Config config) : state_(std::make_unique<State>(std::move(config))) {}
Instrument::~Instrument() = default;

const std::string& Instrument::serial() const { return state_->config.serial; }  // never changes
bool Instrument::isSpectrometer() const { return state_->spectrometer; }

std::vector<std::string> Instrument::received() const {
  std::lock_guard lock(state_->mutex);
  return state_->received;
}

void Instrument::clearReceived() {
  std::lock_guard lock(state_->mutex);
  state_->received.clear();
}

void Instrument::setFault(Fault fault) {
  std::lock_guard lock(state_->mutex);
  state_->config.fault = fault;
}

void Instrument::setAnswerDelayMs(int ms) {
  CheckNonNegative(ms, "answer delay");
  std::lock_guard lock(state_->mutex);
  state_->config.answerDelayMs = ms;
}

void Instrument::setSlowDelayMs(int ms) {
  CheckNonNegative(ms, "slow delay");
  std::lock_guard lock(state_->mutex);
  state_->config.slowDelayMs = ms;
}

void Instrument::setChatterMs(int ms) {
  if (ms <= 0) throw std::invalid_argument("chatter interval must be positive");
  std::lock_guard lock(state_->mutex);
  state_->config.chatterMs = ms;
}

void Instrument::setCaptureTimeScale(double scale) {
  if (!(scale >= 0.0) || !std::isfinite(scale))
    throw std::invalid_argument("capture time scale must be a finite number >= 0");
  std::lock_guard lock(state_->mutex);
  state_->config.captureTimeScale = scale;
}

void Instrument::setCaptureMs(int ms) {
  CheckCaptureMs(ms);
  std::lock_guard lock(state_->mutex);
  state_->config.captureMs = ms;
}

void Instrument::setBusCapture(BusCapture behaviour) {
  std::lock_guard lock(state_->mutex);
  state_->config.busCapture = behaviour;
}

void Instrument::setEot(bool on) {
  std::lock_guard lock(state_->mutex);
  state_->config.eot = on;
}

void Instrument::setFiber(int index, const Fiber& fiber) {
  std::lock_guard lock(state_->mutex);
  const auto count = static_cast<int>(state_->config.fibers.size());
  if (index < 0 || index >= count)
    throw std::out_of_range("setFiber: index " + std::to_string(index) + " outside 0.." +
                            std::to_string(count - 1));
  state_->config.fibers[static_cast<size_t>(index)] = fiber;
}

void Instrument::setCaptureCondition(const std::string& text) {
  std::lock_guard lock(state_->mutex);
  state_->config.captureCondition = text;
}

void Instrument::setDarkAnnounces(bool on) {
  std::lock_guard lock(state_->mutex);
  state_->config.darkAnnounces = on;
}

void Instrument::setAnswer(const std::string& command, const std::string& answer) {
  std::lock_guard lock(state_->mutex);
  if (answer.empty()) {
    state_->fixedAnswers.erase(detail::Upper(command));
  } else {
    state_->fixedAnswers[detail::Upper(command)] = answer;
  }
}

bool Instrument::eot() const {
  std::lock_guard lock(state_->mutex);
  return state_->config.eot;
}

int Instrument::adjustmentSet() const {
  std::lock_guard lock(state_->mutex);
  return state_->currentSet;
}

Settings Instrument::settings() const {
  std::lock_guard lock(state_->mutex);
  return state_->current();
}

int Instrument::captures() const {
  std::lock_guard lock(state_->mutex);
  return state_->captures;
}

std::string Instrument::lastCaptureCommand() const {
  std::lock_guard lock(state_->mutex);
  return state_->lastCaptureCommand;
}

}  // namespace zeltosim
