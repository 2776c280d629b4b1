// libwebclient against raw libcurl on the same loopback server, one scenario
// per process (so that peak memory is per scenario). Prints Markdown table
// rows: | scenario | metric | library | raw libcurl | ratio |.
//
// usage: webclient_bench SCENARIO ORIGIN_URL [ORIGIN_URL...]
//   ORIGIN_URL: http://127.0.0.1:PORT serving /1k and /1g (nginx, see run_bench.sh)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "webclient/webclient.h"

namespace {

constexpr int kSequentialRequests = 2000;
constexpr double kParallelSeconds = 6.0;
constexpr int kParallelRounds = 6;
constexpr int kPickupRequests = 200;

// ratio = library / raw: above 1 is slower for times, faster for rates.
void row(const char* scenario, const char* metric, double library, double raw) {
    const double ratio = raw > 0 ? library / raw : 0.0;
    std::printf("| %s | %s | %.3f | %.3f | %.2f |\n", scenario, metric, library, raw, ratio);
}

// Per-request times in microseconds of `count` calls of each of `library`
// and `raw`, alternated call by call so that both see the same machine
// (a shared VM's speed drifts within seconds).
void timeAlternately(int count, const std::function<bool()>& library, const std::function<bool()>& raw,
                     std::vector<double>& libraryMicros, std::vector<double>& rawMicros) {
    for (int i = 0; i < count; ++i) {
        for (auto* side : {&library, &raw}) {
            const auto start = BenchClock::now();
            if (!(*side)()) {
                std::fprintf(stderr, "request failed\n");
                std::exit(1);
            }
            (side == &library ? libraryMicros : rawMicros).push_back(secondsSince(start) * 1e6);
        }
    }
}

bool libraryGet(const std::string& url) {
    char* body = webClientGet(url.c_str(), nullptr, nullptr, nullptr, false);
    const bool ok = body != nullptr && std::strlen(body) == 1024;
    std::free(body);
    return ok;
}

void sequential(const char* scenario, const std::string& base) {
    const std::string url = base + "/1k";
    RawClient raw;
    libraryGet(url);  // warm the pooled handle and connection, as raw gets below
    raw.get(url);
    std::vector<double> lib, rawTimes;
    timeAlternately(kSequentialRequests, [&] { return libraryGet(url); }, [&] { return raw.get(url) == 1024; },
                    lib, rawTimes);
    row(scenario, "median time per 1 KiB GET (us)", median(lib), median(rawTimes));
}

struct RoundResult {
    double requestsPerSecond;
    double cpuMicrosPerRequest;  // this process: callers plus, for the library, its transfer thread
};

RoundResult runRound(const std::vector<std::string>& origins, double seconds,
                     const std::function<bool(int, const std::string&)>& get) {
    std::atomic<long> done{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const double cpuBefore = processCpuSeconds();
    for (size_t t = 0; t < origins.size(); ++t) {
        threads.emplace_back([&, t] {
            const std::string url = origins[t] + "/1k";
            while (!stop) done += get(static_cast<int>(t), url) ? 1 : 0;
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto& thread : threads) thread.join();
    const double requests = static_cast<double>(std::max(done.load(), 1L));
    return {static_cast<double>(done) / seconds, (processCpuSeconds() - cpuBefore) * 1e6 / requests};
}

// Requests per second of raw libcurl running the four origins' transfers
// on one thread: what the library's one transfer thread could reach at best.
double oneThreadRound(const std::vector<std::string>& origins, double seconds) {
    std::vector<std::string> urls;
    for (const std::string& origin : origins) urls.push_back(origin + "/1k");
    const long done = rawOneThreadGets(urls, seconds);
    if (done < 0) {
        std::fprintf(stderr, "request failed\n");
        std::exit(1);
    }
    return static_cast<double>(done) / seconds;
}

// Short rounds, library, raw and raw on one thread in turn; the medians of
// the rounds. The CPU row tells whether the rate is bound by work or by
// waiting. Named origins (`localhost`) take the caller's-thread path, so
// that row shows what the one transfer thread costs against it.
void parallel(const std::vector<std::string>& origins, const char* scenario, bool oneThreadReference) {
    std::vector<std::unique_ptr<RawClient>> raws;
    for (size_t i = 0; i < origins.size(); ++i) raws.emplace_back(new RawClient());
    const double roundSeconds = kParallelSeconds / kParallelRounds;
    std::vector<double> lib, raw, libCpu, rawCpu, oneThread;
    for (int round = 0; round < kParallelRounds; ++round) {
        RoundResult result =
            runRound(origins, roundSeconds, [](int, const std::string& url) { return libraryGet(url); });
        lib.push_back(result.requestsPerSecond);
        libCpu.push_back(result.cpuMicrosPerRequest);
        result = runRound(origins, roundSeconds,
                          [&](int t, const std::string& url) { return raws[t]->get(url) == 1024; });
        raw.push_back(result.requestsPerSecond);
        rawCpu.push_back(result.cpuMicrosPerRequest);
        if (oneThreadReference) oneThread.push_back(oneThreadRound(origins, roundSeconds));
    }
    row(scenario, "requests per second", median(lib), median(raw));
    row(scenario, "client CPU per request (us)", median(libCpu), median(rawCpu));
    if (!oneThreadReference) return;
    std::printf("| 3 reference: raw libcurl, the same four transfers on one thread (one multi handle) "
                "| requests per second; ratio against four raw threads | - | %.3f | %.2f |\n",
                median(oneThread), median(oneThread) / median(raw));
}

void download(const std::string& base, bool useLibrary) {
    // On tmpfs when there is one: the disk's write-back otherwise swings
    // the rate by 2x from run to run and hides the client's own cost.
    const std::string path =
        std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/webclient-bench-download";
    const auto start = BenchClock::now();
    long status = useLibrary ? 0 : -1;
    if (useLibrary) {
        std::string error;
        status = webClientDownload_ex((base + "/1g").c_str(), nullptr, nullptr, nullptr, path.c_str(), error, false);
    } else {
        RawClient raw;
        status = raw.download(base + "/1g", path);
    }
    const double seconds = secondsSince(start);
    std::remove(path.c_str());
    if (status != 200) std::exit(1);
    std::printf("%s %.3f %ld\n", useLibrary ? "library" : "raw", 1024.0 / seconds, peakRssKib());
}

// Accepts connections and answers each only after three seconds.
int startHoldingServer(std::thread& holder) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener, 8);
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    holder = std::thread([listener] {
        const int client = accept(listener, nullptr, nullptr);
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const char answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok";
        (void)!write(client, answer, sizeof answer - 1);
        close(client);
        close(listener);
    });
    return ntohs(address.sin_port);
}

void pickup(const std::string& base) {
    std::thread holder;
    const int port = startHoldingServer(holder);
    std::thread slow([port] {
        free(webClientGet(("http://127.0.0.1:" + std::to_string(port) + "/held").c_str(), nullptr, nullptr,
                          nullptr, false));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::vector<double> millis;
    const auto start = BenchClock::now();
    while (millis.size() < static_cast<size_t>(kPickupRequests) && secondsSince(start) < 2.5) {
        const auto one = BenchClock::now();
        libraryGet(base + "/1k");
        millis.push_back(secondsSince(one) * 1e3);
    }
    slow.join();
    holder.join();
    std::printf("| 5 pick-up while origin A is held | median ms (%zu requests in 2.5 s) | %.3f | - | - |\n",
                millis.size(), median(millis));
    std::printf("| 5 pick-up while origin A is held | 99th percentile ms | %.3f | - | - |\n", percentile(millis, 0.99));
}

void idleCpu(const std::string& base) {
    const double before = threadCpuSeconds("webclient-xfer");
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const double idle = (threadCpuSeconds("webclient-xfer") - before) / 5.0 * 100.0;
    std::printf("| 6 transfer thread, idle 5 s | %% of a core | %.2f | - | - |\n", idle);
    WebRequest request(base + "/1k", "GET", false);
    std::vector<std::string> none;
    request.getAsync(none, [](std::shared_ptr<DataReceivedEventArgs>) {}, {});
    request.wait(5000);
    const double start = threadCpuSeconds("webclient-xfer");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double held = (threadCpuSeconds("webclient-xfer") - start) * 100.0;
    std::printf("| 6 transfer thread, completed request kept 1 s | %% of a core | %.2f | - | - |\n", held);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s SCENARIO ORIGIN_URL [ORIGIN_URL...]\n", argv[0]);
        return 64;
    }
    const std::string scenario = argv[1];
    std::vector<std::string> origins(argv + 2, argv + argc);
    curl_global_init(CURL_GLOBAL_ALL);
    if (scenario == "download-raw") {
        download(origins[0], false);
        return 0;
    }
    initCurlBackEnd();
    if (scenario == "sequential-numeric") sequential("1 sequential, numeric address (transfer thread)", origins[0]);
    if (scenario == "sequential-named") sequential("2 sequential, localhost (caller's thread)", origins[0]);
    if (scenario == "parallel") parallel(origins, "3 four threads, own origins", true);
    if (scenario == "parallel-named") parallel(origins, "3 four threads, own origins, localhost (caller's thread)", false);
    if (scenario == "download-library") download(origins[0], true);
    if (scenario == "pickup") pickup(origins[1]);
    if (scenario == "idle-cpu") idleCpu(origins[0]);
    if (scenario == "many-descriptors") {
        occupyDescriptors(1100);
        sequential("7 sequential, numeric address, 1100 descriptors open", origins[0]);
    }
    stopCurlBackEnd();
    return 0;
}
