// The port's thread: it reads the host's lines from the pty master, checks the
// line speed, routes each line to the instrument that holds the bus, and puts
// the answers on the wire with their delays and pacing.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "instrument_state.hpp"
#include "line_speed.hpp"
#include "pty_line.hpp"

namespace zeltosim {
namespace {

using Clock = std::chrono::steady_clock;
using State = Instrument::State;
using detail::Reply;

constexpr size_t kMaxLine = 512;      // a real instrument's buffer is far smaller
constexpr size_t kTracedBytes = 200;  // of a longer answer, a trace shows the start
constexpr int kPollMs = 50;           // how long an error state on the pty is waited out
constexpr auto kWriteGiveUp = std::chrono::milliseconds(200);
// How long bytes written to the pty may take at most to be readable by the
// host, generously.
constexpr auto kChatterDelivered = std::chrono::milliseconds(5);

// Bytes as one line of text: printable ASCII as it is, the rest escaped; a
// long burst is cut, with its length.
std::string Escaped(std::string_view bytes) {
  std::string text;
  for (const char c : bytes.substr(0, kTracedBytes)) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\r') {
      text += "\\r";
    } else if (c == '\n') {
      text += "\\n";
    } else if (c == '\\') {
      text += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7F) {
      text += c;
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", byte);
      text += hex;
    }
  }
  if (bytes.size() > kTracedBytes) text += "... (" + std::to_string(bytes.size()) + " bytes)";
  return text;
}

LineOptions Checked(LineOptions line) {
  if (line.baud <= 0) throw std::invalid_argument("baud rate must be positive");
  return line;
}

// Wakes the port's thread from its wait for input, so that a port (and a
// station of many) stops at once.
class Wakeup {
 public:
  Wakeup() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_ < 0) throw std::runtime_error("eventfd failed");
  }
  ~Wakeup() { ::close(fd_); }
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  int fd() const { return fd_; }
  void ring() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(fd_, &one, sizeof one);
  }
  void clear() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = ::read(fd_, &count, sizeof count);
  }

 private:
  int fd_;
};

}  // namespace

struct SimPort::Impl {
  struct Member {
    std::unique_ptr<Instrument> instrument;
    State* state;
  };

  explicit Impl(LineOptions line) : options(Checked(line)), baud(options.baud) {}
  ~Impl() { stop(); }

  void start() {
    thread = std::thread([this] { run(); });
  }
  void stop();
  void run();

  bool stopRequested() const;
  // false when the port is stopping before `deadline`.
  bool sleepUntil(Clock::time_point deadline);
  bool sleepFor(int ms) { return sleepUntil(Clock::now() + std::chrono::milliseconds(ms)); }

  void readInput();
  int chatterWaitMs();
  int holderChatterMs() const;
  void chatter();
  int chatterBefore(Clock::time_point receivedAt) const;
  bool takeTriggerPulse();
  void fireTrigger();
  void feed(const char* bytes, size_t count);
  void handle(const std::string& text, const std::string& bytes);
  std::string holderSerial() const;
  void trace(const std::string& serial, const char* direction, const std::string& what) const;
  bool answer(const std::string& serial, const std::string& bytes, int rate,
              int byteIntervalMs = 0);
  Reply route(const std::string& text);
  Reply bus(const std::string& text, const std::string& upper);
  Reply busFree(const std::string& text);
  Reply broadcastCapture(const std::string& text, const std::string& upper);
  Reply captureEnd(const std::string& text, const std::string& upper);
  bool masterKnowsBus() const;
  std::optional<size_t> memberWithSerial(const std::string& upperSerial) const;
  void deliver(const Reply& reply);
  void babble(Fault flood);
  Fault holderFault() const;
  bool transmit(const std::string& bytes, int rate, int byteIntervalMs = 0);
  bool transmitSlowly(const std::string& bytes, int byteIntervalMs);
  bool transmitPaced(const std::string& bytes, int rate);
  int currentBaud() const;
  void setBaud(int rate);
  bool writeAll(const char* data, size_t size);
  std::string noise();

  size_t holderIndex() const {
    std::lock_guard lock(mutex);
    return holder;
  }
  State& stateAt(size_t index) const {
    std::lock_guard lock(mutex);
    return *members[index].state;
  }

  detail::PtyLine pty;
  Wakeup wakeup;
  const LineOptions options;

  mutable std::mutex mutex;  // guards the fields up to `log`
  std::condition_variable wake;
  bool stopping = false;
  bool triggerPulse = false;  // the trigger input fired and the port has not acted yet
  int baud;
  std::vector<Member> members;  // [0] is the master; only ever appended to
  size_t holder = 0;            // index into members
  std::vector<ReceivedLine> log;

  // Used by the port's thread only.
  int chatterCount = 0;
  Clock::time_point nextChatter{};
  std::deque<std::pair<int, Clock::time_point>> sentChatter;  // the last ones, in order
  std::string partial;
  std::string partialBytes;  // as they came, line end included; for the trace
  std::deque<std::pair<std::string, std::string>> ready;  // each line's text and bytes
  std::minstd_rand random{0x5eed};

  std::thread thread;  // last: starts after, and stops before, everything above
};

void SimPort::Impl::stop() {
  {
    std::lock_guard lock(mutex);
    stopping = true;
  }
  wake.notify_all();
  wakeup.ring();
  if (thread.joinable()) thread.join();
}

bool SimPort::Impl::stopRequested() const {
  std::lock_guard lock(mutex);
  return stopping;
}

bool SimPort::Impl::sleepUntil(Clock::time_point deadline) {
  std::unique_lock lock(mutex);
  return !wake.wait_until(lock, deadline, [this] { return stopping; });
}

// Lines are taken one at a time; while one is being answered the rest of the
// host's bytes wait in the pty, as in a real instrument's receive buffer.
void SimPort::Impl::run() {
  while (!stopRequested()) {
    if (takeTriggerPulse()) {
      fireTrigger();
      continue;
    }
    if (ready.empty()) {
      readInput();
      continue;
    }
    const auto [text, bytes] = std::move(ready.front());
    ready.pop_front();
    try {
      handle(text, bytes);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "zeltosim: line \"%s\" on %s: %s\n", text.c_str(), pty.path().c_str(),
                   e.what());
    }
  }
}

void SimPort::Impl::readInput() {
  pollfd fds[2] = {{pty.master(), POLLIN, 0}, {wakeup.fd(), POLLIN, 0}};
  const int ready = ::poll(fds, 2, chatterWaitMs());
  if (ready == 0) chatter();
  if (ready <= 0) return;
  if (fds[1].revents != 0) {
    wakeup.clear();
    return;
  }
  const pollfd& p = fds[0];
  if (p.revents & POLLIN) {
    char buffer[256];
    const ssize_t n = ::read(pty.master(), buffer, sizeof buffer);
    if (n > 0) feed(buffer, static_cast<size_t>(n));
    return;
  }
  sleepFor(kPollMs);  // an error state: do not spin on it
}

// How long the port waits for the host before its chattering instrument
// sends the next line; -1 (no limit) when the instrument holding the line
// does not chatter.
int SimPort::Impl::chatterWaitMs() {
  const int every = holderChatterMs();
  if (every <= 0) return -1;
  const auto now = Clock::now();
  if (nextChatter == Clock::time_point{}) nextChatter = now + std::chrono::milliseconds(every);
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(nextChatter - now);
  return static_cast<int>(std::max<long long>(0, left.count()));
}

// The interval of the instrument holding the line, or 0 when it does not
// chatter.
int SimPort::Impl::holderChatterMs() const {
  State& st = stateAt(holderIndex());
  std::lock_guard lock(st.mutex);
  return st.config.fault == Fault::Chatter ? st.config.chatterMs : 0;
}

// A line nobody asked for.
void SimPort::Impl::chatter() {
  const int n = ++chatterCount;
  answer(holderSerial(), "DATA " + std::to_string(n) + "\r\n", currentBaud());
  sentChatter.emplace_back(n, Clock::now());
  if (sentChatter.size() > 64) sentChatter.pop_front();
  nextChatter = Clock::now() + std::chrono::milliseconds(holderChatterMs());
}

// The last chatter line that was surely readable by the host when its line
// `receivedAt` left it: sent a few milliseconds before.
int SimPort::Impl::chatterBefore(Clock::time_point receivedAt) const {
  int last = 0;
  for (const auto& [n, sentAt] : sentChatter) {
    if (sentAt + kChatterDelivered <= receivedAt) last = n;
  }
  return last;
}

bool SimPort::Impl::takeTriggerPulse() {
  std::lock_guard lock(mutex);
  return std::exchange(triggerPulse, false);
}

// Pulses that arrive while the report is being prepared or sent merge into
// one, as on an instrument that is busy capturing.
void SimPort::Impl::fireTrigger() {
  State& st = stateAt(0);
  Reply reply;
  {
    std::lock_guard lock(st.mutex);
    reply = detail::TriggerFired(st);
    reply.from = st.config.serial;
  }
  deliver(reply);
}

// Empty lines go through too, so that the trace shows every byte; they are
// not commands.
void SimPort::Impl::feed(const char* bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const char c = bytes[i];
    if (partialBytes.size() < kMaxLine) partialBytes.push_back(c);
    if (c == '\n') {
      ready.emplace_back(std::move(partial), std::move(partialBytes));
      partial.clear();
      partialBytes.clear();
    } else if (c != '\r' && partial.size() < kMaxLine) {
      partial.push_back(c);
    }
  }
}

void SimPort::Impl::handle(const std::string& text, const std::string& bytes) {
  const int speed = detail::ReadLineSpeed(pty.master());
  const bool understood = speed == currentBaud();
  if (options.trace) {
    const std::string rate = speed > 0 ? std::to_string(speed) + " baud" : "an unknown rate";
    trace(holderSerial(), "<-", Escaped(bytes) + (understood ? "" : " (at " + rate + ")"));
  }
  if (text.empty()) return;
  {
    std::lock_guard lock(mutex);
    log.push_back(
        ReceivedLine{text, speed < 0 ? 0 : speed, understood, chatterBefore(Clock::now())});
  }
  if (understood) {
    deliver(route(text));
  } else if (options.wrongSpeed == WrongSpeed::Garbage) {
    answer(holderSerial(), noise(), currentBaud());
  }
  // A chattering instrument is quiet while it answers.
  nextChatter = Clock::now() + std::chrono::milliseconds(holderChatterMs());
}

// Bytes a receiver clocked at the wrong rate would make of an answer: never
// CR, LF or 0x04, so they cannot pass for a complete answer.
std::string SimPort::Impl::noise() {
  std::uniform_int_distribution<int> length(3, 8);
  std::uniform_int_distribution<int> byte(0x80, 0xFF);
  std::string bytes(static_cast<size_t>(length(random)), '\0');
  for (char& c : bytes) c = static_cast<char>(byte(random));
  return bytes;
}

Reply SimPort::Impl::route(const std::string& text) {
  const std::string upper = detail::Upper(text);
  if (upper == "BUSFREE" || upper.starts_with("BUSGET")) return bus(text, upper);
  if (upper.starts_with("BUSCE")) return captureEnd(text, upper);
  if (upper.starts_with("BUSC")) return broadcastCapture(text, upper);
  State* owner = nullptr;
  {
    std::lock_guard lock(mutex);
    owner = members[holder].state;
  }
  return detail::Respond(*owner, text, [&](State& st) { return detail::Execute(st, text); });
}

// The master handles bus commands whoever holds the line. The holder
// acknowledges BUSFREE, in its own framing, as it lets go; a chained
// instrument that is handed the line confirms it itself.
Reply SimPort::Impl::bus(const std::string& text, const std::string& upper) {
  if (upper == "BUSFREE") return busFree(text);
  const std::string wanted = upper.substr(6);
  const std::optional<size_t> found = wanted.empty() ? std::nullopt : memberWithSerial(wanted);
  std::optional<size_t> newHolder;
  Reply reply = detail::Respond(stateAt(0), text, [&](State& st) {
    if (!st.config.knowsBus || wanted.empty()) return detail::SyntaxError(st);
    if (!found) return detail::SayOnce(st, {"NO DEVICE"});
    newHolder = found;
    return *found == 0 ? detail::SayOnce(st, {"OK"}) : Reply{};
  });
  if (!newHolder) return reply;
  {
    std::lock_guard lock(mutex);
    holder = *newHolder;
  }
  if (*newHolder == 0) return reply;
  return detail::Respond(stateAt(*newHolder), text,
                         [](State& st) { return detail::SayOnce(st, {"OK"}); });
}

Reply SimPort::Impl::busFree(const std::string& text) {
  size_t current = 0;
  {
    std::lock_guard lock(mutex);
    current = holder;
  }
  const bool knowsBus = masterKnowsBus();
  bool freed = false;
  Reply reply = detail::Respond(stateAt(current), text, [&](State& st) {
    if (!knowsBus) return detail::SyntaxError(st);
    freed = true;
    return detail::SayOnce(st, {"OK"});
  });
  if (freed) {
    std::lock_guard lock(mutex);
    holder = 0;
  }
  return reply;
}

bool SimPort::Impl::masterKnowsBus() const {
  State& master = stateAt(0);
  std::lock_guard lock(master.mutex);
  return master.config.knowsBus;
}

std::optional<size_t> SimPort::Impl::memberWithSerial(const std::string& upperSerial) const {
  std::lock_guard lock(mutex);
  for (size_t i = 0; i < members.size(); ++i)
    if (detail::Upper(members[i].state->config.serial) == upperSerial) return i;
  return std::nullopt;
}

// The master acknowledges the broadcast at once and every analyser on the
// line starts capturing; the host then asks each one with BUSCE whether it
// has finished. A master that cannot answer relays nothing.
Reply SimPort::Impl::broadcastCapture(const std::string& text, const std::string& upper) {
  const std::string_view arg = std::string_view(upper).substr(4);
  bool relayed = false;
  Reply reply = detail::Respond(stateAt(0), text, [&](State& st) {
    if (!st.config.knowsBus || !detail::JoinBroadcastCapture(st, arg, text))
      return detail::SyntaxError(st);
    relayed = true;
    return detail::SayOnce(st, {"OK"});
  });
  if (!relayed) return reply;
  size_t count = 0;
  {
    std::lock_guard lock(mutex);
    count = members.size();
  }
  for (size_t i = 1; i < count; ++i) {
    State& st = stateAt(i);
    std::lock_guard lock(st.mutex);
    if (st.spectrometer) continue;
    st.received.push_back(text);
    detail::JoinBroadcastCapture(st, arg, text);
  }
  return reply;
}

// Only the instrument asked answers; a serial number nobody has gets silence.
Reply SimPort::Impl::captureEnd(const std::string& text, const std::string& upper) {
  if (!masterKnowsBus())
    return detail::Respond(stateAt(0), text, [](State& st) { return detail::SyntaxError(st); });
  const std::optional<size_t> asked = memberWithSerial(upper.substr(5));
  if (!asked) return Reply{};
  return detail::Respond(stateAt(*asked), text,
                         [](State& st) { return detail::CaptureEndAnswer(st); });
}

// Messages without a delay between them go out in one write, as a UART
// sends them without a gap.
void SimPort::Impl::deliver(const Reply& reply) {
  const int rate = currentBaud();
  std::string pending;
  for (const detail::Message& message : reply.messages) {
    if (message.delayMs > 0) {
      if (!pending.empty() && !answer(reply.from, pending, rate, reply.byteIntervalMs)) return;
      pending.clear();
      if (!sleepFor(message.delayMs)) return;
    }
    for (const std::string& line : message.lines) pending += line + "\r\n";
    if (message.eot) pending += '\x04';
  }
  // A new rate takes effect as the last answer goes out, so a host that has
  // read that answer already finds the instrument at the new rate.
  if (reply.newBaud > 0) setBaud(reply.newBaud);
  if (!pending.empty() && !answer(reply.from, pending, rate, reply.byteIntervalMs)) return;
  if (!reply.endless) return;
  trace(reply.from, "->", "0123456789... without end");
  babble(holderFault());
}

std::string SimPort::Impl::holderSerial() const {
  std::lock_guard lock(mutex);
  return members[holder].state->config.serial;  // never changes
}

void SimPort::Impl::trace(const std::string& serial, const char* direction,
                          const std::string& what) const {
  if (options.trace) options.trace(serial + " " + direction + " " + what);
}

bool SimPort::Impl::answer(const std::string& serial, const std::string& bytes, int rate,
                           int byteIntervalMs) {
  if (options.trace) trace(serial, "->", Escaped(bytes));
  return transmit(bytes, rate, byteIntervalMs);
}

// Digits without a line end until the fault changes: a babble as fast as
// the host takes them, so that the host sees an endless answer soon; a
// stream at the line's rate.
void SimPort::Impl::babble(Fault flood) {
  std::string digits;
  while (digits.size() < 1000) digits += "0123456789";
  while (!stopRequested() && holderFault() == flood) {
    const bool going = flood == Fault::Stream ? transmitPaced(digits, currentBaud())
                                              : writeAll(digits.data(), digits.size());
    if (!going) return;
  }
}

Fault SimPort::Impl::holderFault() const {
  State* st = nullptr;
  {
    std::lock_guard lock(mutex);
    st = members[holder].state;
  }
  std::lock_guard lock(st->mutex);
  return st->config.fault;
}

int SimPort::Impl::currentBaud() const {
  std::lock_guard lock(mutex);
  return baud;
}

void SimPort::Impl::setBaud(int rate) {
  std::lock_guard lock(mutex);
  baud = rate;
}

bool SimPort::Impl::transmit(const std::string& bytes, int rate, int byteIntervalMs) {
  if (byteIntervalMs > 0) return transmitSlowly(bytes, byteIntervalMs);
  if (options.lineDelay) return transmitPaced(bytes, rate);
  return writeAll(bytes.data(), bytes.size());
}

bool SimPort::Impl::transmitSlowly(const std::string& bytes, int byteIntervalMs) {
  for (char c : bytes) {
    if (!sleepFor(byteIntervalMs) || !writeAll(&c, 1)) return false;
  }
  return true;
}

// Each character leaves when a real line at the current rate would have
// finished sending it (start, 8 data bits, stop bits and gap: 11 bits).
bool SimPort::Impl::transmitPaced(const std::string& bytes, int rate) {
  const std::chrono::duration<double> charTime(11.0 / rate);
  const auto start = Clock::now();
  size_t sent = 0;
  while (sent < bytes.size()) {
    const auto due = static_cast<size_t>((Clock::now() - start) / charTime);
    const size_t upTo = std::min(due, bytes.size());
    if (upTo > sent) {
      if (!writeAll(bytes.data() + sent, upTo - sent)) return false;
      sent = upTo;
      continue;
    }
    const auto next =
        start + std::chrono::duration_cast<Clock::duration>(charTime * double(sent + 1));
    if (!sleepUntil(next)) return false;
  }
  return true;
}

// false only when the port is stopping. Bytes that the host does not take in
// time are lost, as they would be on a real wire.
bool SimPort::Impl::writeAll(const char* data, size_t size) {
  const auto giveUp = Clock::now() + kWriteGiveUp;
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::write(pty.master(), data + done, size - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if ((n < 0 && errno != EAGAIN) || Clock::now() > giveUp) return true;
    pollfd p{pty.master(), POLLOUT, 0};
    ::poll(&p, 1, 20);
    if (stopRequested()) return false;
  }
  return true;
}

// ---- SimPort -----------------------------------------------------------------

SimPort::SimPort(Config master, LineOptions line) : impl_(std::make_unique<Impl>(line)) {
  std::unique_ptr<Instrument> instrument(new Instrument(std::move(master)));
  State* state = instrument->state_.get();
  impl_->members.push_back(Impl::Member{std::move(instrument), state});
  impl_->start();
}

SimPort::~SimPort() = default;

const std::string& SimPort::path() const { return impl_->pty.path(); }

Instrument& SimPort::master() {
  std::lock_guard lock(impl_->mutex);
  return *impl_->members.front().instrument;
}

Instrument& SimPort::chain(Config chained) {
  std::unique_ptr<Instrument> instrument(new Instrument(std::move(chained)));
  State* state = instrument->state_.get();
  Instrument& added = *instrument;
  std::lock_guard lock(impl_->mutex);
  impl_->members.push_back(Impl::Member{std::move(instrument), state});
  return added;
}

int SimPort::baud() const { return impl_->currentBaud(); }

std::string SimPort::busHolder() const { return impl_->holderSerial(); }

std::vector<ReceivedLine> SimPort::lineLog() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->log;
}

int SimPort::countReceived(const std::string& command) const {
  const std::string wanted = detail::Upper(command);
  std::lock_guard lock(impl_->mutex);
  int count = 0;
  for (const ReceivedLine& line : impl_->log)
    if (detail::Upper(line.text) == wanted) ++count;
  return count;
}

void SimPort::clearLog() {
  std::lock_guard lock(impl_->mutex);
  impl_->log.clear();
}

void SimPort::fireTrigger() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->triggerPulse = true;
  }
  impl_->wakeup.ring();
}

void SimPort::unplug() {
  impl_->stop();
  impl_->pty.close();
}

std::string PortsVariable(const std::vector<const SimPort*>& ports) {
  std::string joined;
  for (const SimPort* port : ports) {
    if (port == nullptr) throw std::invalid_argument("PortsVariable: null port");
    if (!joined.empty()) joined += ';';
    joined += port->path();
  }
  return joined;
}

}  // namespace zeltosim
