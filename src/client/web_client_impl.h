// Private implementation of WebClient: the data callbacks that the verbs
// bind for each attempt.
#pragma once

#include <memory>
#include <string>

#include "webclient/web_client.h"

class WebClient::impl {
public:
    // Appends the chunk's bytes to `output`.
    void downloadStringCallback(std::string* output, std::shared_ptr<DataReceivedEventArgs> chunk);
    // Writes the chunk to `file` and keeps the host's progress bookkeeping
    // (under the host's progress lock). Runs on the thread that delivers data.
    void downloadStreamCallback(std::shared_ptr<FILE> file, download_param* param,
                                std::shared_ptr<DataReceivedEventArgs> chunk);
};
