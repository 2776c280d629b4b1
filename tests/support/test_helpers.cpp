#include "support/test_helpers.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

long completeGet(const std::string& url) {
    WebRequest request(url, "GET", false);
    std::vector<std::string> none;
    request.getAsync(none, [](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    return request.wait(10000) == 0 ? request.getResponseCode() : -1;
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
