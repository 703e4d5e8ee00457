#include "device/command.hpp"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "device/trigger_report.hpp"
#include "frame/clock.hpp"
#include "frame/debug_log.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace {

// How long an instrument that ran out of time gets to answer "GETSERIAL".
constexpr long kInStepTimeoutMs = 1000;

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
    master->busState = 1;
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
  Trace(master->devicePath.view(), "trigger report kept as the last response: " + *report);
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
  if (RS232SendCommand(line, "GETSERIAL") != 1) return std::nullopt;
  KeepReports(master, std::exchange(line.dropped, {}));
  ++line.owedSerials;
  std::string before;
  bool heard = false;
  bool lastEndsAnswers = false;  // the last line was a serial number or a refusal
  while (line.owedSerials > 0) {
    t_comresponse answer;
    RS232WaitForData(line, &answer, kInStepTimeoutMs, "\r\n", false);
    const WaitOutcome outcome = OutcomeOf(answer, kInStepTimeoutMs);
    // The 0x04 that ends an answer is no word of its own.
    const std::vector<std::string> lines = PlainLines(answer.data);
    if (outcome == WaitOutcome::Late && lines.empty() && lastEndsAnswers) break;
    heard = heard || !lines.empty();
    if (outcome == WaitOutcome::Late) {
      // Not a word: the instrument dropped what it owed, it will not come.
      if (!heard) line.owedSerials = 0;
      line.outOfStep = true;
      return std::nullopt;
    }
    const bool serial = lines.size() == 1 && TookHolder(master, SerialAtEnd(master, lines.front()));
    lastEndsAnswers = serial || outcome == WaitOutcome::SyntaxError;
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
  Trace(master->devicePath.view(), "out of step after a time-out: GETSERIAL");
  const std::optional<std::string> before = CollectUntilSerial(master);
  if (!before) {
    Trace(master->devicePath.view(), kNotInStep);
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
  Trace(master->devicePath.view(), "freeing the line of a removed instrument");
  t_comresponse answer;
  const long timeout = static_cast<long>(16 * master->charTimeMs + 20);
  if (CMD_Write(master, "BUSFREE") == 1) CMD_Wait(master, &answer, timeout, "\r\n", true);
  if (CMD_CommandHeldBack(master) || OutcomeOf(answer, timeout) != WaitOutcome::Answered) {
    throw LineError("Unable to free the bus");
  }
  master->SetBusOwner(master);
}

// The wait for the answer to a command that was held back: late at once.
void AsHeldBack(t_comresponse* response, long timeoutMs) {
  response->data.clear();
  response->syntaxError = false;
  response->elapsedMs = timeoutMs;
}

// Whether an answer may be a trigger report that came first: it reads as
// one while the library expects reports of readings.
bool MayBeReport(s_CommPort* master, const t_comresponse& response, long timeoutMs,
                 bool multiLine, int lineCount) {
  const UnaskedReports& reports = master->trigger.reports;
  if (!reports.expected || reports.fields == 0) return false;
  if (multiLine && lineCount <= 0) return false;  // ended by quiet: no count to check
  if (OutcomeOf(response, timeoutMs) != WaitOutcome::Answered) return false;
  const std::vector<std::string> lines = PlainLines(response.data);
  return !lines.empty() && IsReportLine(reports, lines.front()) &&
         InstrumentWithSerial(master, lines.front()) == nullptr;
}

// The answer to "GETSERIAL" never reads as a report: lines that do came
// before it, and are set aside while the wait goes on.
// Reports that keep coming do not keep the wait going: it is late once its
// time-out has passed since the first of them.
void SkipReports(s_CommPort* master, t_comresponse* response, long timeoutMs,
                 std::string_view marker) {
  std::string skipped;
  const double giveUp = WallClockMs() + static_cast<double>(timeoutMs);
  while (MayBeReport(master, *response, timeoutMs, false, 0)) {
    skipped += response->data;
    if (WallClockMs() > giveUp) {
      response->data.clear();
      response->elapsedMs = timeoutMs;
      master->line->outOfStep = true;
      break;
    }
    RS232WaitForData(*master->line, response, timeoutMs, marker, false);
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
void SeparateReports(s_CommPort* master, t_comresponse* response, long timeoutMs,
                     std::string_view marker, int answerLines) {
  SerialLine& line = *master->line;
  std::string seen = response->data + std::exchange(line.leftover, {});
  const std::optional<std::string> more = CollectUntilSerial(master);
  if (!more) {
    response->elapsedMs = std::max<int64_t>(response->elapsedMs, timeoutMs);
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

WaitOutcome OutcomeOf(const t_comresponse& response, long timeoutMs) {
  if (response.elapsedMs >= timeoutMs) return WaitOutcome::Late;
  if (response.syntaxError) return WaitOutcome::SyntaxError;
  return WaitOutcome::Answered;
}

int CMD_Write(s_CommPort* port, std::string_view command) {
  s_CommPort* master = port->Master();
  SerialLine& line = *master->line;
  line.commandHeldBack = line.outOfStep && !BringLineInStep(master);
  if (line.commandHeldBack) return 1;
  FreeLineOfRemovedHolder(master, command);
  const int written = RS232SendCommand(line, command);
  KeepReports(master, std::exchange(line.dropped, {}));
  line.lastCommand = command;
  return written;
}

bool CMD_CommandHeldBack(const s_CommPort* port) { return port->line->commandHeldBack; }

void CMD_Wait(s_CommPort* port, t_comresponse* response, long timeoutMs, std::string_view marker,
              bool trim, bool multiLine, int lineCount) {
  s_CommPort* master = port->Master();
  SerialLine& line = *master->line;
  if (line.commandHeldBack) {
    AsHeldBack(response, timeoutMs);
    return;
  }
  RS232WaitForData(line, response, timeoutMs, marker, false, multiLine, lineCount);
  const bool asksSerial = AsksSerial(line.lastCommand);
  if (MayBeReport(master, *response, timeoutMs, multiLine, lineCount)) {
    if (asksSerial && !multiLine) {
      SkipReports(master, response, timeoutMs, marker);
    } else {
      SeparateReports(master, response, timeoutMs, marker, multiLine ? lineCount : 1);
    }
  }
  // Its answer, when it comes, is a serial number like the one that brings
  // the line back in step.
  if (line.outOfStep && asksSerial) ++line.owedSerials;
  if (trim) TrimAnswerEnd(response->data);
}

void CMD_WaitForStraggler(s_CommPort* port, t_comresponse* response, long timeoutMs,
                          std::string_view marker) {
  SerialLine& line = *port->Master()->line;
  if (line.commandHeldBack) {
    AsHeldBack(response, timeoutMs);
    return;
  }
  RS232WaitForStraggler(line, response, timeoutMs, marker);
}

int CMD_SendCommand(s_CommPort* port, std::string_view command, unsigned long timeoutMs,
                    t_comresponse* response) {
  if (CMD_Write(port, command) != 1) return -1;
  const long timeout = static_cast<long>(timeoutMs);
  CMD_Wait(port, response, timeout, port->eotFormat.view(), true);
  return OutcomeOf(*response, timeout) == WaitOutcome::Answered ? 1 : 0;
}

}  // namespace zeltocom
