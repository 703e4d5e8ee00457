// Where a test plan's result goes besides the terminal: an SQLite database
// and an MQTT broker.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

// Appends one run to the SQLite database at path; false with *error set when it could not.
bool StoreResult(const nlohmann::ordered_json& result, const std::string& path, std::string* error);
// Publishes the result to zeltocom/<station>/<plan>/result (QoS 1, retained); false with *error
// set.
bool PublishResult(const nlohmann::ordered_json& result, const std::string& url,
                   std::string* error);
