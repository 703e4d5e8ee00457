#include "device/exchange.hpp"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "device/bus.hpp"
#include "device/trigger_report.hpp"
#include "frame/clock.hpp"
#include "frame/registry.hpp"
#include "frame/trace.hpp"
#include "frame/utils.hpp"
#include "serial/driver.hpp"

namespace zeltocom {

namespace {

// How long an instrument that ran out of time gets to answer "GETSERIAL".
constexpr TimeoutMs kInStepTimeoutMs = 1000;

// ---- The one point where commands and answers cross a line ----

// The one judgement of every wait: late when it ran to its time-out, else a
// syntax error when the instrument refused the command, else answered.
Outcome OutcomeOf(const t_comresponse& response, TimeoutMs timeout) {
  if (response.elapsedMs >= timeout) return Outcome::Late;
  if (response.syntaxError) return Outcome::SyntaxError;
  return Outcome::Answered;
}

const char* NameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::Answered: return "answered";
    case Outcome::Late: return "late";
    case Outcome::SyntaxError: return "syntax error";
    case Outcome::NotSent: return "not sent";
  }
  return "";
}

std::string ElapsedSince(double beginMs) {
  return StringPrintf("%.1f ms", WallClockMs() - beginMs);
}

// What was thrown away before a command, in the trace: its last 256 bytes.
std::string ClippedForTrace(std::string_view bytes) {
  constexpr std::size_t kShown = 256;
  if (bytes.size() <= kShown) return EscapedBytes(bytes);
  return StringPrintf("(%zu bytes) ...", bytes.size()) +
         EscapedBytes(bytes.substr(bytes.size() - kShown));
}

void Note(const SerialLine& line, std::string_view serial, std::string_view text) {
  if (TraceOn()) TraceLine(line.path, serial, "! " + std::string(text));
}

// Writes `command` and its line end, after throwing away what was still
// arriving (into `line.dropped`).
bool WriteTraced(SerialLine& line, std::string_view serial, std::string_view command) {
  const std::size_t droppedBefore = line.dropped.size();
  int written = 0;
  try {
    written = RS232SendCommand(line, command);
  } catch (const LineError& e) {
    if (TraceOn()) {
      TraceLine(line.path, serial, "> " + EscapedBytes(command) + " (line lost: " + e.what() + ")");
    }
    throw;
  }
  if (TraceOn()) {
    if (line.dropped.size() > droppedBefore) {
      Note(line, serial,
           "thrown away before the command: " +
               ClippedForTrace(std::string_view{line.dropped}.substr(droppedBefore)));
    }
    TraceLine(line.path, serial,
              "> " + EscapedBytes(command) + "\\r\\n" + (written == 1 ? "" : " (not written)"));
  }
  return written == 1;
}

// Whether a wait owes an answer: one that runs out of time leaves the line
// out of step.
enum class Owed { Answer, Nothing };

// Waits for bytes on the line as `end` says; the text stays untrimmed. The
// trace judges the outcome against `lateAfter`.
t_comresponse WaitTraced(SerialLine& line, std::string_view serial, const End& end,
                         TimeoutMs timeout, Owed owed, TimeoutMs lateAfter) {
  t_comresponse response;
  const double begin = WallClockMs();
  try {
    if (owed == Owed::Answer) {
      RS232WaitForData(line, &response, timeout, end.marker(), false, end.multiLine(),
                       end.lineCount());
    } else {
      RS232WaitForStraggler(line, &response, timeout, end.marker());
    }
  } catch (const LineError& e) {
    if (TraceOn()) {
      TraceLine(
          line.path, serial,
          "< (" + end.Describe() + ", line lost: " + e.what() + ", " + ElapsedSince(begin) + ")");
    }
    throw;
  }
  if (TraceOn()) {
    const Outcome outcome = OutcomeOf(response, lateAfter);
    // Nothing was owed: running out of time is no lateness.
    const bool none = owed == Owed::Nothing && outcome == Outcome::Late;
    TraceLine(line.path, serial,
              "< " + EscapedBytes(response.data) + " (" + end.Describe() + ", " +
                  (none ? "none came" : NameOf(outcome)) + ", " + ElapsedSince(begin) + ")");
  }
  return response;
}

Reply ReplyOf(t_comresponse&& response, TimeoutMs timeout, bool trim) {
  Reply reply;
  reply.outcome = OutcomeOf(response, timeout);
  reply.syntaxError = response.syntaxError;
  reply.quietMs = response.elapsedMs;
  reply.text = std::move(response.data);
  if (trim) TrimAnswerEnd(reply.text);
  return reply;
}

// ---- Keeping the line in step ----

bool SameSerial(std::string_view answer, std::string_view serial) {
  return !serial.empty() && strtoupper(answer) == strtoupper(serial);
}

// The record on the master's line whose serial number `text` is; null for
// none. The removed holder of the line counts as the master.
s_CommPort* InstrumentWithSerial(s_CommPort* master, std::string_view text) {
  if (SameSerial(text, master->serialNumber.view()) ||
      SameSerial(text, master->removedHolder.view())) {
    return master;
  }
  for (const PortRef& chained : PortsList_All(&master->chain)) {
    if (SameSerial(text, chained->serialNumber.view())) return chained.get();
  }
  return nullptr;
}

// Whether `text` is the serial number of an instrument on the master's
// line; if so, the library's picture of who holds the line follows it.
bool TookHolder(s_CommPort* master, std::string_view text) {
  s_CommPort* holder = InstrumentWithSerial(master, text);
  if (holder == nullptr) return false;
  if (SameSerial(text, master->removedHolder.view())) {
    master->busOwner = master;
  } else {
    master->SetBusOwner(holder);
  }
  return true;
}

// The end of `line` that is the serial number of an instrument on the line,
// or `line` itself: what a line that streamed up to the moment it answered
// leaves before the answer has no line end of its own.
std::string_view SerialAtEnd(s_CommPort* master, std::string_view line) {
  std::vector<std::string> serials{std::string(master->serialNumber.view()),
                                   std::string(master->removedHolder.view())};
  for (const PortRef& chained : PortsList_All(&master->chain)) {
    serials.emplace_back(chained->serialNumber.view());
  }
  for (const std::string& serial : serials) {
    if (serial.empty() || serial.size() > line.size()) continue;
    const std::string_view end = line.substr(line.size() - serial.size());
    if (SameSerial(end, serial)) return end;
  }
  return line;
}

bool AsksSerial(std::string_view command) { return strtoupper(command) == "GETSERIAL"; }

// Trigger reports among `text` (the last one wins) become the port's last
// response, when the library enabled the trigger.
void KeepReports(s_CommPort* master, std::string_view text) {
  const UnaskedReports& reports = master->trigger.reports;
  if (!reports.expected || text.empty()) return;
  std::optional<std::string> report = LastReportIn(reports, text);
  if (!report) return;
  Note(*master->line, master->serialNumber.view(),
       "trigger report kept as the last response: " + EscapedBytes(*report));
  master->lastResponse.StoreUnasked(std::move(*report));
}

// Sends "GETSERIAL" and reads until every serial number the line owes has
// come; what came before them is returned. Counts can be off (a command
// lost on the way), so when the line then stays quiet for the whole wait
// right after a serial number or a refusal, everything owed has come all
// the same. None, with the line still out of step, when the instrument does
// not answer so.
std::optional<std::string> CollectUntilSerial(s_CommPort* master) {
  SerialLine& line = *master->line;
  if (!WriteTraced(line, master->serialNumber.view(), "GETSERIAL")) return std::nullopt;
  KeepReports(master, std::exchange(line.dropped, {}));
  ++line.owedSerials;
  std::string before;
  bool heard = false;
  bool lastEndsAnswers = false;  // the last line was a serial number or a refusal
  while (line.owedSerials > 0) {
    const t_comresponse answer = WaitTraced(line, master->serialNumber.view(), End::Marker("\r\n"),
                                            kInStepTimeoutMs, Owed::Answer, kInStepTimeoutMs);
    const Outcome outcome = OutcomeOf(answer, kInStepTimeoutMs);
    // The 0x04 that ends an answer is no word of its own.
    const std::vector<std::string> lines = PlainLines(answer.data);
    if (outcome == Outcome::Late && lines.empty() && lastEndsAnswers) break;
    heard = heard || !lines.empty();
    if (outcome == Outcome::Late) {
      // Not a word: the instrument dropped what it owed, it will not come.
      if (!heard) line.owedSerials = 0;
      line.outOfStep = true;
      return std::nullopt;
    }
    const bool serial = lines.size() == 1 && TookHolder(master, SerialAtEnd(master, lines.front()));
    lastEndsAnswers = serial || outcome == Outcome::SyntaxError;
    if (serial) {
      --line.owedSerials;
    } else {
      before += answer.data;
    }
  }
  line.owedSerials = 0;
  line.outOfStep = false;
  return before;
}

// After a time-out: true once the line is in step again.
bool BringLineInStep(s_CommPort* master) {
  SerialLine& line = *master->line;
  if (line.resyncFailed) return false;
  ++line.resyncs;
  Note(line, master->serialNumber.view(), "out of step after a time-out: GETSERIAL");
  const std::optional<std::string> before = CollectUntilSerial(master);
  if (!before) {
    Note(line, master->serialNumber.view(), kNotInStep);
    line.resyncFailed = true;
    return false;
  }
  KeepReports(master, *before);
  return true;
}

// Frees the line that a removed chained instrument still holds. Its framing
// went with its record: its answer is waited for up to the line end, any
// 0x04 after it being no stray.
void FreeLineOfRemovedHolder(s_CommPort* master, std::string_view command) {
  if (master->removedHolder.empty() || command == "BUSFREE") return;
  Note(*master->line, master->removedHolder.view(), "freeing the line of a removed instrument");
  const Reply freed = Exchange(master, "BUSFREE", End::Marker("\r\n").Trimmed(),
                               BusFreeTimeoutMs(master->charTimeMs));
  if (CommandHeldBack(master) || !freed.answered()) throw LineError("Unable to free the bus");
  master->SetBusOwner(master);
}

// The wait for the answer to a command that was held back: late at once,
// as though the line had been quiet for the whole time-out.
Reply AsHeldBack(const SerialLine& line, std::string_view serial, TimeoutMs timeout) {
  Note(line, serial, "no wait: the command was held back");
  Reply reply;
  reply.quietMs = timeout;
  return reply;
}

// Whether an answer may be a trigger report that came first: it reads as
// one while the library expects reports of readings.
bool MayBeReport(s_CommPort* master, const t_comresponse& response, TimeoutMs timeout,
                 const End& end) {
  const UnaskedReports& reports = master->trigger.reports;
  if (!reports.expected || reports.fields == 0) return false;
  if (end.multiLine() && end.lineCount() <= 0) return false;  // ended by quiet: no count to check
  if (OutcomeOf(response, timeout) != Outcome::Answered) return false;
  const std::vector<std::string> lines = PlainLines(response.data);
  return !lines.empty() && IsReportLine(reports, lines.front()) &&
         InstrumentWithSerial(master, lines.front()) == nullptr;
}

// The answer to "GETSERIAL" never reads as a report: lines that do came
// before it, and are set aside while the wait goes on.
// Reports that keep coming do not keep the wait going: it is late once its
// time-out has passed since the first of them.
void SkipReports(s_CommPort* master, std::string_view serial, t_comresponse* response,
                 TimeoutMs timeout, const End& end) {
  std::string skipped;
  const double giveUp = WallClockMs() + static_cast<double>(timeout);
  while (MayBeReport(master, *response, timeout, end)) {
    skipped += response->data;
    if (WallClockMs() > giveUp) {
      response->data.clear();
      response->elapsedMs = timeout;
      master->line->outOfStep = true;
      break;
    }
    *response = WaitTraced(*master->line, serial, end, timeout, Owed::Answer, timeout);
  }
  KeepReports(master, skipped);
}

// Where the one-line answer is among `lines` that hold it and whole trigger
// reports: the one line that does not read as a report; or, when all do,
// every place that leaves whole reports before and after it. None when the
// places hold different texts.
std::vector<std::size_t> AnswerPlaces(const std::vector<std::string>& lines,
                                      const UnaskedReports& reports) {
  std::vector<std::size_t> others;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (!IsReportLine(reports, lines[i])) others.push_back(i);
  }
  if (!others.empty()) return others.size() == 1 ? others : std::vector<std::size_t>{};
  const auto n = static_cast<std::size_t>(reports.lines);
  std::vector<std::size_t> places;
  for (std::size_t p = 0; p < lines.size(); p += n) {
    if ((lines.size() - 1 - p) % n != 0) continue;
    if (!places.empty() && lines[p] != lines[places.front()]) return {};
    places.push_back(p);
  }
  return places;
}

// Asks "GETSERIAL" to see whether more than the answer was on its way: the
// answer is what is left once whole reports are set aside. Late when the
// instrument does not tell; LineError when the answer could be either of two
// lines that differ.
void SeparateReports(s_CommPort* master, t_comresponse* response, TimeoutMs timeout,
                     std::string_view marker, int answerLines) {
  SerialLine& line = *master->line;
  std::string seen = response->data + std::exchange(line.leftover, {});
  const std::optional<std::string> more = CollectUntilSerial(master);
  if (!more) {
    response->elapsedMs = std::max(response->elapsedMs, timeout);
    return;
  }
  seen += *more;
  std::vector<std::string> lines = PlainLines(seen);
  if (static_cast<int>(lines.size()) == answerLines) return;
  const std::vector<std::size_t> places =
      answerLines == 1 ? AnswerPlaces(lines, master->trigger.reports) : std::vector<std::size_t>{};
  if (places.empty()) throw LineError(kReportOrAnswer);
  response->data = lines[places.front()] + std::string(marker.empty() ? "\r\n" : marker);
  // Only where the answer stood is known are the reports around it whole.
  if (places.size() != 1) return;
  lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(places.front()));
  std::string reports;
  for (const std::string& text : lines) reports += text + "\r\n";
  KeepReports(master, reports);
}

}  // namespace

End End::Marker(std::string_view marker) {
  End end;
  end.marker_ = marker;
  return end;
}

End End::Lines(int count, std::string_view marker) {
  End end = Marker(marker);
  end.multiLine_ = true;
  end.lineCount_ = count;
  return end;
}

End End::Quiet(std::string_view marker) { return Lines(0, marker); }

End End::Trimmed() const {
  End end = *this;
  end.trim_ = true;
  return end;
}

std::string End::Describe() const {
  if (!multiLine_) return "end \"" + EscapedBytes(marker_.empty() ? "\r\n" : marker_) + "\"";
  if (lineCount_ > 0) return StringPrintf("lines %d", lineCount_);
  return "quiet";
}

bool SendCommand(s_CommPort* port, std::string_view command) {
  s_CommPort* master = port->Master();
  SerialLine& line = *master->line;
  line.commandHeldBack = line.outOfStep && !BringLineInStep(master);
  if (line.commandHeldBack) {
    Note(line, port->serialNumber.view(), "held back: " + EscapedBytes(command));
    return true;
  }
  FreeLineOfRemovedHolder(master, command);
  const bool written = WriteTraced(line, port->serialNumber.view(), command);
  KeepReports(master, std::exchange(line.dropped, {}));
  line.lastCommand = command;
  return written;
}

bool CommandHeldBack(const s_CommPort* port) { return port->line->commandHeldBack; }

Reply Await(s_CommPort* port, const End& end, TimeoutMs timeout) {
  s_CommPort* master = port->Master();
  SerialLine& line = *master->line;
  const std::string_view serial = port->serialNumber.view();
  if (line.commandHeldBack) return AsHeldBack(line, serial, timeout);
  t_comresponse response = WaitTraced(line, serial, end, timeout, Owed::Answer, timeout);
  const bool asksSerial = AsksSerial(line.lastCommand);
  if (MayBeReport(master, response, timeout, end)) {
    if (asksSerial && !end.multiLine()) {
      SkipReports(master, serial, &response, timeout, end);
    } else {
      SeparateReports(master, &response, timeout, end.marker(),
                      end.multiLine() ? end.lineCount() : 1);
    }
  }
  // Its answer, when it comes, is a serial number like the one that brings
  // the line back in step.
  if (line.outOfStep && asksSerial) ++line.owedSerials;
  return ReplyOf(std::move(response), timeout, end.trimmed());
}

Reply AwaitStraggler(s_CommPort* port, const End& end, TimeoutMs timeout,
                     std::optional<TimeoutMs> lateAfter) {
  SerialLine& line = *port->Master()->line;
  if (line.commandHeldBack) return AsHeldBack(line, port->serialNumber.view(), timeout);
  return AwaitStragglerOnLine(line, port->serialNumber.view(), end, timeout, lateAfter);
}

Reply Exchange(s_CommPort* port, std::string_view command, const End& end, TimeoutMs timeout) {
  if (!SendCommand(port, command)) {
    Reply reply;
    reply.outcome = Outcome::NotSent;
    return reply;
  }
  return Await(port, end, timeout);
}

bool SendOnLine(SerialLine& line, std::string_view serial, std::string_view command) {
  return WriteTraced(line, serial, command);
}

Reply AwaitOnLine(SerialLine& line, std::string_view serial, const End& end, TimeoutMs timeout) {
  return ReplyOf(WaitTraced(line, serial, end, timeout, Owed::Answer, timeout), timeout,
                 end.trimmed());
}

Reply AwaitStragglerOnLine(SerialLine& line, std::string_view serial, const End& end,
                           TimeoutMs timeout, std::optional<TimeoutMs> lateAfter) {
  const TimeoutMs judged = lateAfter.value_or(timeout);
  return ReplyOf(WaitTraced(line, serial, end, timeout, Owed::Nothing, judged), judged,
                 end.trimmed());
}

bool AwaitTriggerMessage(const SerialLine& line, std::string_view serial, int wakeFd,
                         const std::atomic<bool>& abort, const End& end, Reply* message) {
  t_comresponse response;
  const double begin = WallClockMs();
  const bool ended = RS232WaitForExternalCapture(line.fd, wakeFd, &response, abort, end.marker(),
                                                 end.multiLine(), end.lineCount());
  if (TraceOn()) {
    const char* outcome = ended ? (response.syntaxError ? "syntax error" : "answered")
                                : (abort ? "aborted" : "line lost");
    TraceLine(line.path, serial,
              "< " + EscapedBytes(response.data) + " (trigger report, " + end.Describe() + ", " +
                  outcome + ", " + ElapsedSince(begin) + ")");
  }
  *message = Reply{};
  message->outcome =
      ended ? (response.syntaxError ? Outcome::SyntaxError : Outcome::Answered) : Outcome::Late;
  message->syntaxError = response.syntaxError;
  message->text = std::move(response.data);
  return ended;
}

int CMD_SendCommand(s_CommPort* port, std::string_view command, TimeoutMs timeout,
                    std::string* text) {
  Reply reply = Exchange(port, command, End::Marker(port->eotFormat.view()).Trimmed(), timeout);
  if (text != nullptr) *text = std::move(reply.text);
  switch (reply.outcome) {
    case Outcome::Answered: return 1;
    case Outcome::NotSent: return -1;
    default: return 0;
  }
}

}  // namespace zeltocom
