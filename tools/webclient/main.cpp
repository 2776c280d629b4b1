// webclient: a command-line program over libwebclient's public API, for
// trying every capability and for diagnosing exchanges through exactly the
// library's own code paths.
#include <csignal>
#include <cstdio>
#include <exception>

#include "cli_commands.h"
#include "cli_options.h"
#include "cli_transfer.h"
#include "webclient/webclient.h"

namespace {

// Only numeric-address URLs run on the transfer thread, and starting it
// costs 6 s, so a domain-name URL goes without it.
bool needsBackend(const CliOptions& options) {
    return !kpu_utilities::string_con::IsDomainInUrl(options.url);
}

int runCommand(int argc, char** argv) {
    CliOptions options;
    std::string error;
    if (!parseCommandLine(argc, argv, options, error)) {
        std::fprintf(stderr, "webclient: %s\n\n%s", error.c_str(), usageText(options.verb).c_str());
        return kExitUsage;
    }
    if (options.help) {
        std::printf("%s", usageText(options.verb).c_str());
        return kExitOk;
    }
    if (options.verbose) SetWebClientLogLevel(WEBCLIENT_LOG_DEBUG);
    if (options.verb == "demo") return runDemo(options);
    const bool adopted = adoptDeviceCaFile();
    if (options.verb == "trust") return runTrustCommand(options, adopted);
    // A reader that goes away (`| head`) makes writing the body fail with
    // status 2, as curl does, rather than killing the program.
    std::signal(SIGPIPE, SIG_IGN);
    BackendRun backend(needsBackend(options));
    return runTransferCommand(options);
}

}  // namespace

// Set-up failures of a verb reach the caller as exceptions; so do the
// demo's own (a server that cannot start, a certificate that cannot be made).
int main(int argc, char** argv) {
    try {
        return runCommand(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "webclient: %s\n", error.what());
    } catch (...) {
        std::fprintf(stderr, "webclient: unexpected failure\n");
    }
    return kExitTransferFailed;
}
