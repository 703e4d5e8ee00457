#include "api/sequence_lines.hpp"

#include <algorithm>
#include <optional>
#include <type_traits>
#include <vector>

#include "frame/utils.hpp"

namespace zeltocom {

namespace {

// What separates and pads the fields of a line.
constexpr std::string_view kBlanks = " \t";

// The non-empty pieces of `text` between any of `separators`.
std::vector<std::string_view> Pieces(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> pieces;
  std::size_t start = text.find_first_not_of(separators);
  while (start != std::string_view::npos) {
    const std::size_t end = text.find_first_of(separators, start);
    pieces.push_back(text.substr(start, end - start));
    start = text.find_first_not_of(separators, end);
  }
  return pieces;
}

using SampleValue = std::variant<int, float, unsigned char>;

std::optional<SampleValue> ValueFor(const SampleColumn& column, std::string_view field) {
  return std::visit(
      [field](auto* array) -> std::optional<SampleValue> {
        using Number = std::remove_pointer_t<decltype(array)>;
        const std::optional<Number> value = WholeNumber<Number>(field);
        if (!value) return std::nullopt;
        return SampleValue(std::in_place_type<Number>, *value);
      },
      column);
}

// One value per column, or none when the line does not read whole: nothing
// of a partial line is stored.
std::optional<std::vector<SampleValue>> ValuesOf(std::string_view line,
                                                 std::span<const SampleColumn> columns) {
  const std::vector<std::string_view> fields = Pieces(line, kBlanks);
  if (fields.size() != columns.size()) return std::nullopt;
  std::vector<SampleValue> values;
  for (std::size_t k = 0; k < fields.size(); ++k) {
    const std::optional<SampleValue> value = ValueFor(columns[k], fields[k]);
    if (!value) return std::nullopt;
    values.push_back(*value);
  }
  return values;
}

void Put(const SampleColumn& column, std::size_t index, const SampleValue& value) {
  std::visit(
      [&](auto* array) { array[index] = std::get<std::remove_pointer_t<decltype(array)>>(value); },
      column);
}

}  // namespace

void StoreSamples(std::string_view answer, int samples, std::span<const SampleColumn> columns) {
  const std::vector<std::string_view> lines = Pieces(answer, "\r\n");
  const std::size_t count = std::min(lines.size(), static_cast<std::size_t>(std::max(samples, 0)));
  for (std::size_t i = 0; i < count; ++i) {
    const std::optional<std::vector<SampleValue>> values = ValuesOf(lines[i], columns);
    if (!values) continue;
    for (std::size_t k = 0; k < columns.size(); ++k) Put(columns[k], i, (*values)[k]);
  }
}

}  // namespace zeltocom
