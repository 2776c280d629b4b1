// Commands of the `webclient` program other than plain transfers.
#pragma once

#include "cli_options.h"

int runTrustCommand(const CliOptions& options);
int runDemo(const CliOptions& options);
