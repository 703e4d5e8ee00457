// Sequences: a burst of captures the analyser takes by itself ("CS") after
// its set-up commands, kept in a memory that the readings then answer from,
// one line per sample, until an ordinary capture replaces them.
//
// Each line is as wide as an analyser makes it for its reading (the
// characters per line: 11 for intensities and wavelengths, 19 for "x y I",
// 22 for HSI, 23 for RGBI, 18 for CCT), the values right-aligned with
// blanks, CR LF after; values longer than that go out whole. With
// Config::unpaddedReadouts they go out bare.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "zeltosim/zeltosim.hpp"

namespace zeltosim::detail {

struct Reply;

struct SequenceSetup {
  int startDelayMs = -1;  // -1: not set yet
  int captureMs = -1;
  int waitMs = -1;
  int samples = -1;
  bool oneChannel = false;  // "PUTSEQUENCEMODE1": only `channel` is captured
  int channel = 1;          // 1-based
};

struct SequenceMemory {
  SequenceSetup setup;
  std::vector<std::optional<Light>> lights;  // per fibre; none: the Fiber's steady intensity
  std::vector<std::vector<Fiber>> samples;   // per fibre; empty when not captured
  bool current = false;                      // the readings answer from here, not from the last "C"
};

// The readings a sequence answers, one line per sample.
enum class Reading { Intensity, XyI, Hsi, Rgbi, Cct, Wavelength };

// Handlers of the command table; `arg` is what follows the command's name.
// One of the four timings, three digits (the number of samples three or four).
Reply SequenceSetting(Instrument::State& st, int SequenceSetup::*field, std::string_view arg);
Reply SequenceMode(Instrument::State& st, std::string_view arg);
Reply SequenceChannel(Instrument::State& st, std::string_view arg);
Reply SequenceCapture(Instrument::State& st);

// The answer from the sequence memory to a reading of fibre "<nn>"; none when
// an ordinary capture is current (or for "ALL"), so that the single reading
// answers.
std::optional<Reply> SequenceReadings(Instrument::State& st, Reading reading, std::string_view arg);

}  // namespace zeltosim::detail
