// What the test process holds: open descriptors and unreaped children.
#pragma once

#include <dirent.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstddef>

inline size_t countOpenDescriptors() {
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    while (const dirent* entry = readdir(dir)) count += (entry->d_name[0] != '.') ? 1 : 0;
    closedir(dir);
    return count;  // includes the directory's own descriptor, every time
}

// True when the process has no child at all, running or zombie. (Reaps a
// zombie if there is one, which then fails the check.)
inline bool hasNoChildren() {
    int status = 0;
    return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}
