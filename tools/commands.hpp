// The subcommands: each declares its words and options on the tool's root
// and gives back what runs it.
#pragma once

#include "args.hpp"

namespace cli {

Subcommand AddPorts(CLI::App& root);
Subcommand AddDetect(CLI::App& root);
Subcommand AddSend(CLI::App& root);
Subcommand AddShell(CLI::App& root);
Subcommand AddCapture(CLI::App& root);
Subcommand AddChain(CLI::App& root);
Subcommand AddSequence(CLI::App& root);
Subcommand AddBin(CLI::App& root);
Subcommand AddSpectrometer(CLI::App& root);
Subcommand AddTrigger(CLI::App& root);
Subcommand AddCalibrate(CLI::App& root);
Subcommand AddProject(CLI::App& root);
Subcommand AddPlot(CLI::App& root);
#ifdef ZELTOCOM_PLANS
Subcommand AddTest(CLI::App& root);
#endif
// Built with SQLite only.
Subcommand AddResults(CLI::App& root);

}  // namespace cli
