// What the calling thread holds of the library's locks: the handle mutexes
// of the requests it keeps alive, its read holds on the CA file, the CA
// file's write lock (while its refresh replaces the file and calls the
// host's handler), and the multi lock (the transfer thread, while it runs
// callbacks). A refresh needs the CA file's write lock, which waits for
// every read hold; before it waits, it asks what this thread holds, since a
// reader may be waiting for one of those very locks (or be this thread).
#pragma once

namespace webclient {

struct ThreadHolds {
    int handle_locks = 0;    // pooled handles locked by this thread's requests
    int ca_file_holds = 0;   // read holds left by GetCaFile, not yet put back
    int ca_file_writes = 0;  // the CA file's write lock, taken by this thread's refresh
    int multi_locks = 0;     // the backend's multi lock, either mode
};

ThreadHolds& thisThreadHolds() noexcept;

// The transfer thread holds the multi lock while it runs a request's
// callbacks: a request made, started or aborted there would wait for that
// lock, or for a handle whose owner waits for this very thread.
inline bool insideTransferCallback() noexcept { return thisThreadHolds().multi_locks > 0; }

// Counts one hold for as long as it lives.
class CountedHold {
public:
    explicit CountedHold(int& count) noexcept : count_(count) { ++count_; }
    ~CountedHold() { --count_; }
    CountedHold(const CountedHold&) = delete;
    CountedHold& operator=(const CountedHold&) = delete;

private:
    int& count_;
};

}  // namespace webclient
