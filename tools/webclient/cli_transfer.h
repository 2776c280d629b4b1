// The transfer commands of the `webclient` program.
#pragma once

#include "cli_options.h"

// Runs get/post/put/patch/delete/upload/download as the options say and
// returns the program's exit status.
int runTransferCommand(const CliOptions& options);

// The HTTP status of the last status line in raw response header text, or 0.
int lastStatusInHeaders(const std::string& headers);
