// Brings options, hypervisor, host and guest together, and shows what happens.
#pragma once

#include "sim/hostsim/options.h"
#include "sim/hostsim/report.h"

// Runs the guest as the options say and prints the summary. Returns the exit code.
Report_Exit Front_Run(const Options& options);
