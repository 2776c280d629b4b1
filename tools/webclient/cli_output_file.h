// The file a `webclient download` writes. A regular file (or a new one) is
// written as a temporary file beside it and renamed into place only when the
// download succeeded, so a failed transfer leaves an existing file as it
// was; a device or pipe (-o /dev/null) is written directly.
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
    // when that fails (the temporary file is then removed).
    bool commit(std::FILE* written, std::string& error);
    // Where the bytes are now: the temporary file until committed.
    const std::string& writtenPath() const { return temporary_.empty() ? target_ : temporary_; }

private:
    std::string target_;
    std::string temporary_;
};
