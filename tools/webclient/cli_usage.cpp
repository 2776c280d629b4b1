#include <map>

#include "cli_options.h"

namespace {

const char kProgramUsage[] =
    "usage: webclient [options] <command> [URL]\n"
    "\n"
    "Makes HTTP and HTTPS requests through libwebclient's own code paths.\n"
    "\n"
    "commands:\n"
    "  get URL           GET; the body goes to standard output\n"
    "  post URL          POST the data of -d or --data-file\n"
    "  put URL           PUT the data of -d or --data-file\n"
    "  patch URL         PATCH the data of -d or --data-file\n"
    "  delete URL        DELETE\n"
    "  upload URL        multipart POST: -F name=@file plus optional -F name=value\n"
    "  download URL      save the body to -o FILE, with a progress bar; an\n"
    "                    existing FILE is replaced only by a successful download\n"
    "  trust status      show the trust store's status and CA file\n"
    "  trust refresh     refresh the CA bundle now, then show the status\n"
    "  demo              run every capability against built-in loopback servers\n"
    "\n"
    "options:\n"
    "  -u USER:PASSWORD  credentials (sent only when both are non-empty)\n"
    "  -H 'Name: value'  extra request header line (repeatable)\n"
    "  -d DATA           request body;  --data-file FILE  body from a file\n"
    "  --cookie TEXT     Cookie header value (get)\n"
    "  -F name=value     form field (once per name; sent in name order);\n"
    "                    -F name=@file  the uploaded file (upload)\n"
    "  -i                show the response header lines (on standard error)\n"
    "  -o FILE           output file (download)\n"
    "  --ssl             verify the peer against the trust store, refreshing\n"
    "                    the CA bundle and retrying once on a trust failure\n"
    "  -v                show the library's log lines at debug level\n"
    "  -h, --help        this text; 'webclient <command> --help' for one command\n"
    "\n"
    "The HTTP status and any transfer error are written to standard error.\n"
    "exit status: 0 completed with HTTP status below 400; 1 HTTP status 400 or\n"
    "above; 2 transfer failed (no complete answer); 64 bad usage.\n";

const std::map<std::string, std::string> kVerbUsage = {
    {"get", "usage: webclient get [-u USER:PASSWORD] [-H 'Name: value']... [--cookie TEXT] [-i] [--ssl] URL\n"},
    {"post", "usage: webclient post [-u USER:PASSWORD] [-H ...]... (-d DATA | --data-file FILE) [-i] [--ssl] URL\n"},
    {"put", "usage: webclient put [-u USER:PASSWORD] [-H ...]... (-d DATA | --data-file FILE) [-i] [--ssl] URL\n"},
    {"patch", "usage: webclient patch [-u USER:PASSWORD] [-H ...]... (-d DATA | --data-file FILE) [-i] [--ssl] URL\n"},
    {"delete", "usage: webclient delete [-u USER:PASSWORD] [-H ...]... [-i] [--ssl] URL\n"},
    {"upload", "usage: webclient upload [-u USER:PASSWORD] [-H ...]... -F name=@file [-F name=value]... [-i] [--ssl] URL\n"},
    {"download", "usage: webclient download [-u USER:PASSWORD] [-H ...]... -o FILE [--ssl] URL\n"},
    {"trust", "usage: webclient trust status | webclient trust refresh\n"},
    {"demo", "usage: webclient demo\n"
             "Starts loopback HTTP and HTTPS servers with a fresh test CA and walks\n"
             "through every capability. The trust store's fixed paths are re-rooted\n"
             "in a scratch directory inside a private mount namespace (needs root);\n"
             "without that, the trust-store steps are skipped and said so.\n"},
};

}  // namespace

std::string usageText(const std::string& verb) {
    auto found = kVerbUsage.find(verb);
    return found == kVerbUsage.end() ? kProgramUsage : found->second;
}
