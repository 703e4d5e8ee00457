// The answer to a sequence readout: one line per sample, each taken only when
// it reads whole. Pure, so it is tested without a port.
#pragma once

#include <span>
#include <string_view>
#include <variant>

namespace zeltocom {

// The host's array for one field of every sample. Its type is the field's
// format: a whole number within int, a finite float, or a byte (0 to 255).
using SampleColumn = std::variant<int*, float*, unsigned char*>;

// Stores line i of `answer` into element i of every column, for i below
// `samples`. Lines end at CR or LF; empty ones are dropped. A line is stored
// only when it holds one number per column, each of the column's type and
// written out completely (WholeNumber), separated and padded by blanks; any
// other line leaves its elements as they were and still takes its sample's
// place.
void StoreSamples(std::string_view answer, int samples, std::span<const SampleColumn> columns);

}  // namespace zeltocom
