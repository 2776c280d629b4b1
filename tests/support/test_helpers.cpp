#include "support/test_helpers.h"

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
