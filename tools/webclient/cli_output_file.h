// The file a `webclient download` writes, so that a failed download leaves
// an existing file as it was. The body goes to a temporary file first; on
// success a new file is renamed into place, and an existing regular file is
// overwritten in place from it (its owner, mode and other links stay). A
// device or pipe (-o /dev/null) is written directly. Symbolic links are
// followed, also to a file that does not exist yet.
#pragma once

#include <cstdio>
#include <string>

class OutputFile {
public:
    explicit OutputFile(std::string path);
    ~OutputFile();  // removes the temporary file unless it was committed
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // The stream to write into; null with `error` set when it cannot be made.
    std::FILE* open(std::string& error);
    // Puts what was written in place of the target. False with `error` set
    // when that fails.
    bool commit(std::FILE* written, std::string& error);
    // Where the bytes are now: the temporary file until committed.
    const std::string& writtenPath() const { return temporary_.empty() ? target_ : temporary_; }

private:
    std::FILE* openTemporary(const std::string& directory, std::string& error);
    bool copyIntoTarget(std::FILE* written, std::string& error);

    std::string target_;
    std::string temporary_;
    bool targetExists_ = false;
};

// Removes a download's temporary file when the program is interrupted
// (SIGINT, SIGTERM, SIGHUP), then ends it as the signal would.
void removeTemporaryDownloadOnSignals();
