// The subcommands, one table entry each.
#pragma once

#include "args.hpp"

namespace cli {

Command PortsCommand();
Command DetectCommand();
Command SendCommand();
Command ShellCommand();
Command CaptureCommand();
Command ChainCommand();
Command SequenceCommand();
Command BinCommand();

}  // namespace cli
