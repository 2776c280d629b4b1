// Command-line parsing for the `webclient` program.
#pragma once

#include <map>
#include <string>
#include <vector>

// Exit statuses of the program.
enum ExitStatus {
    kExitOk = 0,             // exchange completed with an HTTP status below 400
    kExitHttpError = 1,      // the server answered with 400 or above
    kExitTransferFailed = 2, // libcurl failed, or no answer arrived
    kExitUsage = 64,         // bad command line
};

struct CliOptions {
    std::string verb;   // get, post, put, patch, delete, upload, download, trust, demo
    std::string url;    // or, for "trust", its sub-command
    std::string user;
    std::string password;
    std::vector<std::string> headers;
    std::string data;
    bool hasData = false;
    std::string cookie;
    std::string outputFile;
    std::map<std::string, std::string> formFields;
    std::string fileField;  // upload: name of the file part
    std::string filePath;   // upload: the file
    bool showHeaders = false;
    bool useSsl = false;
    bool verbose = false;
    bool help = false;
};

// Parses argv; on a usage error returns false and sets `error` to a one-line
// message.
bool parseCommandLine(int argc, char** argv, CliOptions& options, std::string& error);

// Usage text for the program, or for one verb when `verb` is not empty.
std::string usageText(const std::string& verb);
