// The tool without a database or a broker to write results to.
#include "plan_sinks.hpp"

namespace cli {

bool StoreResult(const nlohmann::ordered_json& /*result*/, const std::string& /*path*/,
                 std::string* error) {
  *error = "not built in";
  return false;
}

bool PublishResult(const nlohmann::ordered_json& /*result*/, const std::string& /*url*/,
                   std::string* error) {
  *error = "not built in";
  return false;
}

}  // namespace cli
