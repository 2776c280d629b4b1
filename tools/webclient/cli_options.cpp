#include "cli_options.h"

#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include "engine/url_masking.h"

namespace {

const std::set<std::string> kVerbs = {"get", "post", "put", "patch", "delete",
                                      "upload", "download", "trust", "demo"};
const std::set<std::string> kBodyVerbs = {"post", "put", "patch"};

bool readFile(const std::string& path, std::string& contents) {
    // A directory opens, reads as nothing, and would be sent as an empty body.
    struct stat info;
    if (::stat(path.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) return false;
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    contents.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// Secrets given on the command line stay visible in the process list for
// as long as the program runs; the copy is taken, the original blanked.
void blankArgument(char* argument) { std::memset(argument, ' ', std::strlen(argument)); }

// The process list shows the arguments for the program's whole run: a URL's
// secrets (its password, password= and client_secret= values) are starred
// there once the URL is taken.
void hideUrlSecrets(char* argument) {
    for (const auto& range : webclient::urlSecretRanges(argument, true)) {
        std::memset(argument + range.first, '*', range.second - range.first);
    }
}

// An argument as a usage error shows it: a misplaced URL (a forgotten verb,
// a second URL) with its secrets masked.
std::string shownArgument(const std::string& argument) {
    return "'" + webclient::withRangesMasked(argument, webclient::urlSecretRanges(argument, true)) + "'";
}

// "-F name=value" adds a form field; "-F name=@path" names the file part.
bool addFormEntry(const std::string& entry, CliOptions& options, std::string& error) {
    const size_t eq = entry.find('=');
    if (eq == std::string::npos || eq == 0) {
        error = "-F expects name=value or name=@file, got '" + entry + "'";
        return false;
    }
    const std::string name = entry.substr(0, eq), value = entry.substr(eq + 1);
    if (!value.empty() && value[0] == '@') {
        if (value.size() == 1) {
            error = "-F " + name + "=@ names no file";
            return false;
        }
        if (!options.filePath.empty()) {
            error = "upload takes exactly one file part (name=@file)";
            return false;
        }
        options.fileField = name;
        options.filePath = value.substr(1);
    } else if (!options.formFields.emplace(name, value).second) {
        // The library takes the fields as a map: one value per name.
        error = "form field '" + name + "' given twice";
        return false;
    }
    return true;
}

bool splitCredentials(const std::string& text, CliOptions& options, std::string& error) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        error = "-u expects USER:PASSWORD";
        return false;
    }
    options.user = text.substr(0, colon);
    options.password = text.substr(colon + 1);
    return true;
}

bool takeValue(int argc, char** argv, int& i, std::string& value, std::string& error) {
    if (i + 1 >= argc) {
        error = std::string("option ") + argv[i] + " needs a value";
        return false;
    }
    value = argv[++i];
    return true;
}

// Handles one option at argv[i]; false on a usage error.
bool parseOption(int argc, char** argv, int& i, CliOptions& options, std::string& error) {
    const std::string arg = argv[i];
    std::string value;
    if (arg == "-h" || arg == "--help") return options.help = true;
    if (arg == "-i" || arg == "--include") return options.showHeaders = true;
    if (arg == "--ssl") return options.useSsl = true;
    if (arg == "-v" || arg == "--verbose") return options.verbose = true;
    if (arg == "-u" || arg == "--user") {
        if (!takeValue(argc, argv, i, value, error)) return false;
        blankArgument(argv[i]);
        return splitCredentials(value, options, error);
    }
    if (arg == "-H" || arg == "--header") {
        if (!takeValue(argc, argv, i, value, error)) return false;
        if (value.find(':') == std::string::npos || value.find_first_of("\r\n") != std::string::npos) {
            error = "-H expects one line 'Name: value'";
            return false;
        }
        options.headers.push_back(value);
        return true;
    }
    if (arg == "-d" || arg == "--data") {
        options.hasData = true;
        return takeValue(argc, argv, i, options.data, error);
    }
    if (arg == "--data-file") {
        if (!takeValue(argc, argv, i, value, error)) return false;
        options.hasData = true;
        if (!readFile(value, options.data)) {
            error = "cannot read --data-file " + value;
            return false;
        }
        // The verbs take the body as text, which would end at the NUL.
        if (options.data.find('\0') == std::string::npos) return true;
        error = "--data-file " + value + " holds a NUL byte; send binary files with upload";
        return false;
    }
    if (arg == "--cookie" || arg == "-b") {
        if (!takeValue(argc, argv, i, options.cookie, error)) return false;
        blankArgument(argv[i]);
        if (options.cookie.find_first_of("\r\n") == std::string::npos) return true;
        error = "--cookie expects one line";
        return false;
    }
    if (arg == "-o" || arg == "--output") return takeValue(argc, argv, i, options.outputFile, error);
    if (arg == "-F" || arg == "--form") {
        return takeValue(argc, argv, i, value, error) && addFormEntry(value, options, error);
    }
    // Only the option's name: a value joined to it may be a secret (-uUSER:PW).
    const std::string name = arg.compare(0, 2, "--") == 0 ? arg.substr(0, arg.find('=')) : arg.substr(0, 2);
    error = "unknown option " + name + (name.size() < arg.size() ? " (with a value joined to it)" : "");
    return false;
}

bool hasHttpScheme(const std::string& url) {
    const size_t separator = url.find("://");
    if (separator == std::string::npos) return false;
    const std::string scheme = url.substr(0, separator);
    return webclient::asciiEqualNoCase(scheme, "http") || webclient::asciiEqualNoCase(scheme, "https");
}

bool checkVerbArguments(const CliOptions& options, std::string& error) {
    if (options.verb == "demo") {
        if (options.url.empty()) return true;
        error = "demo takes no argument";
        return false;
    }
    if (options.verb == "trust") {
        if (options.url == "status" || options.url == "refresh") return true;
        error = "trust expects 'status' or 'refresh'";
        return false;
    }
    if (options.url.empty()) {
        error = options.verb + " needs a URL";
        return false;
    }
    if (!hasHttpScheme(options.url)) {
        error = "the URL must start with http:// or https://";
        return false;
    }
    if (options.hasData && kBodyVerbs.count(options.verb) == 0) {
        error = "-d/--data-file only go with post, put and patch";
        return false;
    }
    if (!options.cookie.empty() && options.verb != "get") {
        error = "--cookie only goes with get";
        return false;
    }
    if (options.verb == "upload" && options.filePath.empty()) {
        error = "upload needs a file part: -F name=@file";
        return false;
    }
    if (options.verb == "download" && options.outputFile.empty()) {
        error = "download needs -o FILE";
        return false;
    }
    return true;
}

}  // namespace

bool parseCommandLine(int argc, char** argv, CliOptions& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (arg[0] == '-' && std::strlen(arg) > 1) {
            if (!parseOption(argc, argv, i, options, error)) return false;
        } else if (options.verb.empty()) {
            if (kVerbs.count(arg) == 0) {
                error = "unknown command " + shownArgument(arg);
                return false;
            }
            options.verb = arg;
        } else if (options.url.empty()) {
            options.url = arg;
            hideUrlSecrets(argv[i]);
        } else {
            error = "unexpected argument " + shownArgument(arg);
            return false;
        }
    }
    if (options.help) return true;
    if (options.verb.empty()) {
        error = "no command given";
        return false;
    }
    return checkVerbArguments(options, error);
}
