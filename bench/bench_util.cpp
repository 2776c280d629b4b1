#include "bench_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

double secondsSince(BenchClock::time_point start) {
    return std::chrono::duration<double>(BenchClock::now() - start).count();
}

double median(std::vector<double> values) { return percentile(std::move(values), 0.5); }

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return 0.0;
    std::sort(values.begin(), values.end());
    const size_t index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

namespace {

size_t appendBody(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

}  // namespace

RawClient::RawClient() : handle_(curl_easy_init()) {}

RawClient::~RawClient() { curl_easy_cleanup(handle_); }

void RawClient::prepareGet(const std::string& url) {
    url_ = url;
    body_.clear();
    curl_easy_setopt(handle_, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &body_);
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle_, CURLOPT_PRIVATE, this);
}

long RawClient::get(const std::string& url) {
    prepareGet(url);
    if (curl_easy_perform(handle_) != CURLE_OK) return -1;
    return received();
}

long RawClient::download(const std::string& url, const std::string& path) {
    FILE* out = std::fopen(path.c_str(), "w+");
    if (out == nullptr) return -1;
    curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, nullptr);  // default: fwrite
    curl_easy_setopt(handle_, CURLOPT_WRITEDATA, out);
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    long status = -1;
    if (curl_easy_perform(handle_) == CURLE_OK) curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
    std::fclose(out);
    return status;
}

long rawOneThreadGets(const std::vector<std::string>& urls, double seconds) {
    CURLM* multi = curl_multi_init();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (const std::string& url : urls) {
        clients.emplace_back(new RawClient());
        clients.back()->prepareGet(url);
        curl_multi_add_handle(multi, clients.back()->handle());
    }
    long done = 0;
    const auto start = BenchClock::now();
    while (done >= 0 && secondsSince(start) < seconds) {
        int running = 0;
        curl_multi_perform(multi, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE) continue;
            RawClient* client = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &client);
            done = message->data.result == CURLE_OK && client->received() == 1024 && done >= 0 ? done + 1 : -1;
            curl_multi_remove_handle(multi, message->easy_handle);
            client->prepareGet(client->url());
            curl_multi_add_handle(multi, message->easy_handle);
        }
        curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    for (auto& client : clients) curl_multi_remove_handle(multi, client->handle());
    curl_multi_cleanup(multi);
    return done;
}

long peakRssKib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double threadCpuSeconds(const std::string& threadName) {
    DIR* tasks = opendir("/proc/self/task");
    double seconds = -1.0;
    const long ticks = sysconf(_SC_CLK_TCK);
    while (dirent* entry = tasks ? readdir(tasks) : nullptr) {
        const std::string base = std::string("/proc/self/task/") + entry->d_name;
        std::ifstream comm(base + "/comm");
        std::string name;
        if (!std::getline(comm, name) || name != threadName) continue;
        std::ifstream stat(base + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::string field;
        unsigned long long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14) utime = std::stoull(field);
            if (i == 15) stime = std::stoull(field);
        }
        seconds = static_cast<double>(utime + stime) / static_cast<double>(ticks);
    }
    if (tasks) closedir(tasks);
    return seconds;
}

void occupyDescriptors(int count) {
    const int base = open("/dev/null", O_RDONLY);
    for (int i = 1; i < count; ++i) (void)fcntl(base, F_DUPFD, 0);
}
