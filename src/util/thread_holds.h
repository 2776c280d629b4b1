// What the calling thread holds of the library's locks: the handle mutexes
// of the requests it keeps alive, its read holds on the CA file, and the
// multi lock (the transfer thread, while it runs callbacks). A refresh
// needs the CA file's write lock, which waits for every read hold; before
// it waits, it asks what this thread holds, since a reader may be waiting
// for one of those very locks (or be this thread).
#pragma once

namespace webclient {

struct ThreadHolds {
    int handle_locks = 0;   // pooled handles locked by this thread's requests
    int ca_file_holds = 0;  // read holds left by GetCaFile, not yet put back
    int multi_locks = 0;    // the backend's multi lock, either mode
};

ThreadHolds& thisThreadHolds() noexcept;

}  // namespace webclient
