#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "frame/registry.hpp"

namespace zeltocom {

// The devices of a project file's text in file order, or the error that
// ended the reading with the call's result for it; the rows read before an
// error are kept.
struct ProjectFile {
  std::vector<s_IDPort> rows;
  std::string error;  // empty for a valid project file
  int result = 1;     // 0 or -1 with an error
};
ProjectFile ReadProjectFile(std::string_view text);

}  // namespace zeltocom
