// A file sent as a PUT body. libcurl's own reader sends whatever fread
// returns, so bytes appended after the size was announced went out past
// the Content-Length (a kept connection then carried them as the start of
// the next request), and a file that shrank, could not be read, or was
// handed over part-read left the server waiting for the rest until the
// low-speed limit. This reader sends exactly the announced size or fails
// the transfer at once; a stream that is no regular file (a pipe) has no
// size to announce and goes out chunked to its end.
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <string>

#include <curl/curl.h>

struct UploadSource {
    std::FILE* stream = nullptr;
    curl_off_t announced = -1;  // -1: unknown, read to the end of the stream
    curl_off_t sent = 0;
};

// Points `handle` at `stream` through `source`, which must outlive the
// transfer; `info` is the stream's status.
void sendFileAsBody(CURL* handle, UploadSource& source, std::FILE* stream, const struct stat& info);

namespace webclient {

// libcurl's form reader sends a directory as an empty file part, and the
// server answers an upload that never happened with 200: both clients
// refuse such a path before anything is sent.
bool namesDirectory(const std::string& path);

// One part per form field (map order, none for a null map), then the file
// part named `fieldName` with the contents of the file at `filePath`. Null
// when libcurl cannot add every part (out of memory): nothing is then owned.
curl_httppost* buildUploadForm(const std::map<std::string, std::string>* formFields, const std::string& fieldName,
                               const std::string& filePath);

}  // namespace webclient
