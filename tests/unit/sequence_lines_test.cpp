// Sequence readout lines: stored only when they read whole in their format.
#include <gtest/gtest.h>

#include <array>
#include <span>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "api/sequence_lines.hpp"

using namespace zeltocom;

namespace {

std::string Shown(const std::vector<SampleColumn>& columns) {
  std::ostringstream text;
  for (const SampleColumn& column : columns)
    std::visit([&](auto* a) { text << ' ' << +*a; }, column);
  return text.str().substr(1);
}

// One sample of `line` read in `format` ('i' int, 'f' float, 'b' byte) into
// arrays holding markers: "untouched" when every marker stayed, else what
// the arrays hold (markers among values would be a partial store).
std::string Read(const std::string& format, const std::string& line) {
  std::array<int, 4> ints{-99, -99, -99, -99};
  std::array<float, 4> floats{-99, -99, -99, -99};
  std::array<unsigned char, 4> bytes{199, 199, 199, 199};
  std::vector<SampleColumn> columns;
  for (std::size_t k = 0; k < format.size(); ++k) {
    if (format[k] == 'i') columns.emplace_back(&ints[k]);
    if (format[k] == 'f') columns.emplace_back(&floats[k]);
    if (format[k] == 'b') columns.emplace_back(&bytes[k]);
  }
  const std::string markers = Shown(columns);
  StoreSamples(line, 1, columns);
  return Shown(columns) == markers ? "untouched" : Shown(columns);
}

}  // namespace

TEST(SequenceLines, ALineIsStoredOnlyWhenItReadsWhole) {
  // format, line, what is stored
  const std::tuple<std::string, std::string, std::string> cases[] = {
      // Short values, bare or padded as instruments pad them.
      {"i", "380", "380"},
      {"i", "7", "7"},
      {"i", "        549", "549"},
      {"i", "00000000549", "549"},
      {"i", "\t-12 ", "-12"},
      {"i", "2147483647", "2147483647"},
      {"ffi", "    0.3288 0.4232 999", "0.3288 0.4232 999"},
      {"fii", "100.89 40 1200", "100.89 40 1200"},
      {"bbbi", "        77 128 51 16411", "77 128 51 16411"},
      {"if", "5614 0.3288", "5614 0.3288"},
  };
  for (const auto& [format, line, stored] : cases) EXPECT_EQ(Read(format, line), stored) << line;
  // Some fields only or more than the format holds, garbage, numbers written
  // only in part (the number reader's own cases are tested with it), numbers
  // their type cannot hold, and no numbers at all.
  const std::pair<std::string, std::vector<std::string>> untouched[] = {
      {"i", {"549 nm", "SYNTAX ERROR", "1.5", "2147483648"}}, {"if", {"5614"}},
      {"ffi", {"0.3288 0.4232", "1e39 0.4 5", "nan 0.4 5"}},  {"fii", {"100.89x 40 1200"}},
      {"bbbi", {"77 128 51", "256 0 0 5", "-1 0 0 5"}},
  };
  for (const auto& [format, lines] : untouched) {
    for (const std::string& line : lines) EXPECT_EQ(Read(format, line), "untouched") << line;
  }

  // A field more than the columns: nothing stored, nothing past them either.
  std::array<int, 2> two{-99, -99};
  const std::vector<SampleColumn> both = {&two[0], &two[1]};
  StoreSamples("549 7", 1, std::span<const SampleColumn>(both).first(1));
  EXPECT_EQ(two, (std::array<int, 2>{-99, -99}));
}

TEST(SequenceLines, EveryLineTakesItsSamplesPlace) {
  std::vector<int> values(4, -1);  // one beyond the three samples
  const SampleColumn column = values.data();
  StoreSamples("1200\r\n0.5\r\n\r\n7\r549 nm\n2\r\n3", 3, {&column, 1});
  EXPECT_EQ(values, (std::vector<int>{1200, -1, 7, -1}));
  StoreSamples("5", 3, {&column, 1});
  EXPECT_EQ(values, (std::vector<int>{5, -1, 7, -1}));
}
