// The driver's wait for an answer, over a line whose bytes, their grouping
// into reads and the pauses between them come from the input: whatever
// arrives, the answer ends where its end is, no byte is made up, reordered
// or lost, and no wait outlasts its bound.
//
// Input: a setup byte (bits 0-1: one to three waits, 2: busy waits, 3: the
// line repeats its bytes until the last wait ends, 4: the first read is
// already in the line's leftover), one byte per wait (bits 0-1: end kind,
// 2-3: marker, 4-5: line count, 6-7: time-out), then the bytes the line
// carries. In those, 0xFF ends a read and the byte after it is the pause in
// ms (its low 3 bits) before the next one; 0xFF 0xFF is a data byte 0xFF.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "frame/clock.hpp"
#include "frame/serial_line.hpp"
#include "fuzz_check.hpp"
#include "serial/driver.hpp"

using namespace zeltocom;

namespace {

constexpr std::size_t kNone = std::string::npos;

// Kept short so that a line that never stops ends its waits quickly.
constexpr double kAllowanceMs = 10;
// What a loaded machine may add to a wait before it counts as outlasting
// its bound.
constexpr double kSchedulingSlackMs = 300;
// Each read of the line is one packet, which the driver takes whole;
// longer reads are cut.
constexpr std::size_t kPieceMax = 4096;

enum class EndKind { Marker, Lines, Quiet, TimeOut };

struct Wait {
  EndKind kind;
  std::string marker;  // as the driver gets it: empty means CR LF
  int lineCount;
  long timeoutMs;
};

struct Piece {
  int pauseMs;  // before it is sent
  std::string bytes;
};

struct Script {
  bool busy = false;
  bool repeats = false;           // the line sends its pieces over and over
  bool startsInLeftover = false;  // the first piece is what an earlier wait left
  std::vector<Wait> waits;
  std::vector<Piece> pieces;
};

Wait DecodeWait(std::uint8_t b) {
  static constexpr std::array<std::string_view, 4> kMarkers = {"", "\r\n", "\r\n\x04", "\x04"};
  static constexpr std::array<long, 4> kTimeoutsMs = {1, 2, 4, 10};
  Wait wait{static_cast<EndKind>(b & 3), std::string(kMarkers[(b >> 2) & 3]), ((b >> 4) & 3) + 1,
            kTimeoutsMs[b >> 6]};
  // Long enough for 200 ms of quiet to end the wait first; rare, as slow.
  if (wait.kind == EndKind::Quiet && (b & 0xF0) == 0xF0) wait.timeoutMs = 400;
  return wait;
}

Script Decode(const std::uint8_t* data, std::size_t size) {
  std::size_t at = 0;
  const auto next = [&]() -> std::uint8_t { return at < size ? data[at++] : 0; };
  Script script;
  const std::uint8_t setup = next();
  script.busy = (setup & 4) != 0;
  script.repeats = (setup & 8) != 0;
  script.startsInLeftover = (setup & 16) != 0;
  const int waits = (setup & 3) % 3 + 1;
  for (int i = 0; i < waits; ++i) script.waits.push_back(DecodeWait(next()));
  Piece piece{0, ""};
  while (at < size) {
    const std::uint8_t c = data[at++];
    if (c == 0xFF && (at == size || data[at] != 0xFF)) {
      script.pieces.push_back(std::move(piece));
      piece = Piece{next() & 7, ""};
      continue;
    }
    at += c == 0xFF ? 1 : 0;
    piece.bytes.push_back(static_cast<char>(c));
    if (piece.bytes.size() < kPieceMax) continue;
    script.pieces.push_back(std::move(piece));
    piece = Piece{0, ""};
  }
  script.pieces.push_back(std::move(piece));
  return script;
}

// What the instrument's side sent, and the offset in it where each packet
// ends.
struct Sent {
  std::string bytes;
  std::vector<std::size_t> packetEnds;
};

// Sends `bytes` as one packet; false when stopped before it could go.
bool SendPacket(const std::stop_token& stop, int fd, const std::string& bytes, Sent& sent) {
  while (!stop.stop_requested()) {
    const ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(bytes.size())) {
      sent.bytes += bytes;
      sent.packetEnds.push_back(sent.bytes.size());
      return true;
    }
    Require(n < 0 && errno == EAGAIN);
    pollfd room{fd, POLLOUT, 0};
    poll(&room, 1, 1);
  }
  return false;
}

// The instrument's side: sends its pieces as one packet each, so each read
// of the driver takes exactly one.
void Play(const std::stop_token& stop, int fd, const std::vector<Piece>& pieces, bool repeats,
          Sent& sent) {
  const bool anything =
      std::ranges::any_of(pieces, [](const Piece& p) { return !p.bytes.empty(); });
  do {
    for (const Piece& piece : pieces) {
      std::this_thread::sleep_for(std::chrono::milliseconds(piece.pauseMs));
      if (stop.stop_requested()) return;
      if (!piece.bytes.empty() && !SendPacket(stop, fd, piece.bytes, sent)) return;
    }
  } while (repeats && anything && !stop.stop_requested());
}

std::string DrainRest(int fd) {
  std::string rest;
  std::vector<char> buffer(kPieceMax);
  for (;;) {
    const ssize_t n = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n <= 0) return rest;
    rest.append(buffer.data(), static_cast<std::size_t>(n));
  }
}

// What one wait gave back.
struct Outcome {
  t_comresponse answer;
  std::string leftover;
  bool outOfStep = false;
  bool tooLong = false;  // ended by "Answer too long"
  double wallMs = 0;
};

// The only call into the driver.
Outcome RunWait(SerialLine& line, const Wait& wait) {
  const int lineCount = wait.kind == EndKind::Lines   ? wait.lineCount
                        : wait.kind == EndKind::Quiet ? 0
                                                      : -1;
  Outcome out;
  line.outOfStep = false;
  const double begin = WallClockMs();
  try {
    RS232WaitForData(line, &out.answer, wait.timeoutMs, wait.marker, false,
                     wait.kind != EndKind::Marker, lineCount);
  } catch (const LineError& e) {
    Require(std::string_view(e.what()) == "Answer too long");
    out.tooLong = true;
  }
  out.wallMs = WallClockMs() - begin;
  out.leftover = line.leftover;
  out.outOfStep = line.outOfStep;
  return out;
}

std::size_t FirstEnd(std::string_view text, std::string_view what) {
  const std::size_t at = text.find(what);
  return at == kNone ? kNone : at + what.size();
}

std::size_t NthLineEnd(std::string_view text, int n) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && --n == 0) return i + 1;
  }
  return kNone;
}

// Where the wait should have stopped and its answer ended, as offsets in the
// stream; kNone when no end came before the wait stopped.
struct Expected {
  std::size_t stopRead = kNone;
  std::size_t answerEnd = kNone;
  bool refusal = false;
};

// A one-line answer ends at its first marker; a longer one at its line
// count or a refusal, whichever ends first among what the wait has seen.
// An end counts once the read that completes it is in (a refusal only in
// more than 13 bytes), and the wait stops at the first read that shows one.
Expected ExpectedEnd(const Wait& wait, std::string_view consumed, std::size_t from,
                     std::size_t firstLook, const std::vector<std::size_t>& readEnds) {
  const std::string marker = wait.marker.empty() ? "\r\n" : wait.marker;
  const auto seenAt = [&](std::size_t end, std::size_t shortest) {
    if (end == kNone) return kNone;
    const auto read =
        std::ranges::lower_bound(readEnds, std::max({from + end, from + shortest, firstLook}));
    return read == readEnds.end() || *read > from + consumed.size() ? kNone : *read;
  };
  const std::size_t refusal = std::min(FirstEnd(consumed, "SYNTAX ERROR" + marker),
                                       FirstEnd(consumed, "ERROR: SYNTAX" + marker));
  const std::size_t refusalSeen = seenAt(refusal, 14);
  if (wait.kind == EndKind::Marker) {
    const std::size_t end = FirstEnd(consumed, marker);
    const std::size_t endSeen = seenAt(end, 1);
    return {endSeen, from + end, refusal <= end && refusalSeen <= endSeen};
  }
  const std::size_t lines =
      wait.kind == EndKind::Lines ? NthLineEnd(consumed, wait.lineCount) : kNone;
  const std::size_t linesSeen = seenAt(lines, 1);
  const std::size_t stopRead = std::min(refusalSeen, linesSeen);
  if (stopRead == kNone) return {};
  // Of the ends that read shows, the first.
  const std::size_t end =
      std::min(refusalSeen <= stopRead ? refusal : kNone, linesSeen <= stopRead ? lines : kNone);
  return {stopRead, from + end, refusalSeen <= stopRead && refusal <= end};
}

// Checks one wait that took `consumed` (its answer and leftover) from
// `stream` at `from`; the wait could look at the bytes up to each of
// `readEnds` in turn, from `firstLook` on.
void CheckWait(const Wait& wait, const Outcome& out, std::string_view stream, std::size_t from,
               std::size_t firstLook, const std::vector<std::size_t>& readEnds) {
  const std::string consumed = out.answer.data + out.leftover;
  const std::size_t stop = from + consumed.size();
  Require(stop <= stream.size() && stream.substr(from, consumed.size()) == consumed);
  Require(std::ranges::binary_search(readEnds, stop));
  Require(out.wallMs <= static_cast<double>(wait.timeoutMs) + kAllowanceMs + kSchedulingSlackMs);

  const Expected expected = ExpectedEnd(wait, consumed, from, firstLook, readEnds);
  // Over the limit before the last read was looked at.
  const bool unseen = out.tooLong && expected.stopRead == stop;
  if (expected.stopRead != kNone && !unseen) {
    // The answer ends at its end: the bytes after it are the next message's.
    Require(!out.tooLong && expected.stopRead == stop &&
            from + out.answer.data.size() == expected.answerEnd);
    Require(out.answer.syntaxError == expected.refusal);
    Require(out.answer.elapsedMs < wait.timeoutMs && !out.outOfStep);
    return;
  }
  // No end came: everything received is the answer.
  Require(out.leftover.empty() && !out.answer.syntaxError);
  if (out.tooLong) {
    Require(out.answer.data.size() > kMaxAnswerBytes && out.outOfStep);
    return;
  }
  Require(out.answer.data.size() <= kMaxAnswerBytes);
  // Only a quiet line may end such a wait in time, after 200 ms of quiet.
  if (out.outOfStep) Require(out.answer.elapsedMs >= wait.timeoutMs);
  else Require(wait.kind == EndKind::Quiet && out.wallMs >= 200);
}

void Run(const Script& script) {
  int ends[2];
  Require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
  SerialLine line;
  line.fd = ends[0];
  std::vector<Piece> pieces = script.pieces;
  std::string stream;
  if (script.startsInLeftover) {
    stream = pieces.front().bytes;
    pieces.erase(pieces.begin());
  }
  line.leftover = stream;

  Sent sent;
  std::vector<Outcome> outcomes;
  {
    std::jthread instrument(Play, ends[1], std::cref(pieces), script.repeats, std::ref(sent));
    for (const Wait& wait : script.waits) {
      outcomes.push_back(RunWait(line, wait));
      if (outcomes.back().tooLong) break;
    }
  }  // stopped and joined
  const std::string rest = DrainRest(ends[0]);
  close(ends[0]);
  close(ends[1]);
  line.fd = -1;

  std::vector<std::size_t> readEnds{stream.size()};
  for (std::size_t end : sent.packetEnds) readEnds.push_back(stream.size() + end);
  stream += sent.bytes;

  std::size_t from = 0;
  std::size_t carried = readEnds.front();  // the leftover the first wait starts with
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    const Outcome& out = outcomes[i];
    // Nothing left over by the wait before is dropped.
    Require(out.answer.data.size() + out.leftover.size() >= carried);
    CheckWait(script.waits[i], out, stream, from, from + carried, readEnds);
    from += out.answer.data.size();
    carried = out.leftover.size();
  }
  // What no wait took is still on the line, in order.
  Require(stream.substr(from + carried) == rest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Script script = Decode(data, size);
  SetStreamAllowanceMs(kAllowanceMs);
  SetBlockingWaits(!script.busy);
  Run(script);
  SetBlockingWaits(true);
  return 0;
}
