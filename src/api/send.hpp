#pragma once

#include <string>

#include "api/common.hpp"

namespace zeltocom {

// Sends `command` to the instrument that holds the line of the held port and
// copies its answer into `response` (may be null). 1, 0 or -1 as
// ZeltoCom_Send.
int Send(const HeldPort& port, const std::string& command, char* response);

// False, with "No command given", for a missing or empty command.
bool CommandGiven(const char* command);

}  // namespace zeltocom
