// The file a `webclient download` writes, so that a failed download leaves
// an existing file as it was. The body goes to a temporary file (private
// until committed) first. On success a new file, or an existing one that is
// ours alone (one link), is renamed into place, keeping the old mode. Any
// other existing file (more links, another owner or group, a directory we
// may not write to) is overwritten in place, its room reserved first.
// Whenever putting a complete download in place fails, it is kept in the
// temporary file and the error names it. A device or pipe (-o /dev/null,
// -o /dev/stdout) is written directly.
// Symbolic links are followed, also to a file that does not exist yet.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

class OutputFile {
public:
    explicit OutputFile(std::string path);
    ~OutputFile();  // removes the temporary file unless committed or kept
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // The stream to write into; null with `error` set when it cannot be made.
    std::FILE* open(std::string& error);
    // Puts what was written in place of the target. False with `error` set
    // when that fails.
    bool commit(std::FILE* written, std::string& error);
    // Where the bytes are now: the temporary file until committed (and
    // after, when committing failed).
    const std::string& writtenPath() const { return temporary_.empty() ? target_ : temporary_; }

private:
    std::FILE* openAsGiven(std::string& error);
    std::FILE* openTemporary(const std::string& directory, std::string& error);
    bool renameIntoTarget(std::FILE* written, std::string& error);
    bool copyIntoTarget(std::FILE* written, std::string& error);
    void keepTemporary();

    std::string target_;
    std::string temporary_;
    bool kept_ = false;  // the temporary file outlives the object
    bool targetExists_ = false;
    bool byRename_ = true;
    mode_t mode_ = 0;  // the mode the target gets when renamed into place
    dev_t targetDevice_ = 0;  // the existing target, overwritten only if still there
    ino_t targetInode_ = 0;
};

// Removes a download's temporary file when the program is interrupted
// (SIGINT, SIGTERM, SIGHUP), then ends it as the signal would.
void removeTemporaryDownloadOnSignals();
