#include "support/test_helpers.h"

#include "engine/web_request_impl.h"

#include <dirent.h>
#include <sys/syscall.h>

#include <chrono>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

namespace {

// Made once per process, removed at exit.
struct LocaleDirectory {
    std::string path;
    LocaleDirectory() {
        char pattern[] = "/tmp/webclient-locale-XXXXXX";
        if (mkdtemp(pattern) == nullptr) return;
        path = pattern;
        // localedef's warnings give a non-zero status too: setlocale tells.
        const std::string command = "localedef -i tr_TR -f UTF-8 " + path + "/tr_TR.UTF-8 >/dev/null 2>&1";
        const int status = std::system(command.c_str());
        static_cast<void>(status);
    }
    ~LocaleDirectory() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
};

}  // namespace

TurkishLocale::TurkishLocale() {
    static const LocaleDirectory directory;
    setenv("LOCPATH", directory.path.c_str(), 1);
    active_ = std::setlocale(LC_ALL, "tr_TR.UTF-8") != nullptr;
}

TurkishLocale::~TurkishLocale() {
    std::setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
}

long completeGet(const std::string& url) {
    WebRequest request(url, "GET", false);
    request.getAsync(noHeaders, ignore, {});
    return request.wait(10000) == 0 ? request.getResponseCode() : -1;
}

CURLcode resultOfGet(WebRequest& request) {
    request.getAsync(noHeaders, ignore, {});
    request.wait(10000);
    return request.impl->result;
}

std::map<int, std::string> openDescriptors() {
    std::map<int, std::string> open;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return open;  // no /proc: nothing to compare, not a crash
    const int own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == own) continue;
        char target[256] = {};
        const ssize_t length = readlink(("/proc/self/fd/" + std::string(entry->d_name)).c_str(), target,
                                        sizeof(target) - 1);
        open[fd] = length > 0 ? std::string(target, static_cast<size_t>(length)) : "?";
    }
    closedir(dir);
    return open;
}

namespace {

// Whether thread `tid` of this process is asleep ('S' in its stat).
bool threadSleeps(const std::string& tid) {
    std::ifstream stat("/proc/self/task/" + tid + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    return close == std::string::npos || (close + 2 < line.size() && line[close + 2] == 'S');
}

bool otherThreadsSleep() {
    const std::string self = std::to_string(syscall(SYS_gettid));
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return true;
    bool quiet = true;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.' || self == entry->d_name) continue;
        if (!threadSleeps(entry->d_name)) quiet = false;
    }
    closedir(dir);
    return quiet;
}

}  // namespace

void waitUntilOtherThreadsSleep() {
    // Twice in a row: a thread may be just waking.
    for (int attempt = 0, quietInARow = 0; attempt < 2000 && quietInARow < 2; ++attempt) {
        quietInARow = otherThreadsSleep() ? quietInARow + 1 : 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}
