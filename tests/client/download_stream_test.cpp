// Streamed downloads with progress bookkeeping: reports, host cancellation,
// write failures. Plain downloads on both dispatch paths
// are checked through the exported functions (tests/capi).
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "util/sigpipe_shield.h"
#include "webclient/host.h"
#include "webclient/web_client.h"

// One image of a progress job on the transfer thread, with the host's side:
// lock, map, and the reports it receives.
class ProgressJob : public ::testing::Test {
protected:
    ProgressJob() {
        reset_download_percentage_data();
        SetSalSend([this](const char* report) { onReport(report); });
    }
    ~ProgressJob() override { SetSalSend(nullptr); }

    download_param job(const std::string& path, const std::string& image, double divisor = 1) {
        download_param param;
        param.url = server.url("127.0.0.1", path);
        param.progress_key = "job";
        param.image_name = image;
        param.progress_lock = &lock;
        param.progress_map = &map;
        param.progress_divisor = divisor;
        return param;
    }

    // {"token": "query_percentage", "data": {"job": {"fail": bool, "percentage": double, "inprogress": int}}}
    void onReport(const char* text) {
        json_object* root = json_tokener_parse(text);
        json_object *token, *data, *job, *fail, *value, *inprogress;
        const bool parsed = json_object_object_get_ex(root, "token", &token) &&
                            json_object_object_get_ex(root, "data", &data) &&
                            json_object_object_get_ex(data, "job", &job) &&
                            json_object_object_get_ex(job, "fail", &fail) &&
                            json_object_object_get_ex(job, "percentage", &value) &&
                            json_object_object_get_ex(job, "inprogress", &inprogress);
        wellFormed &= parsed && std::string(json_object_get_string(token)) == "query_percentage" &&
                      json_object_is_type(fail, json_type_boolean) && json_object_is_type(value, json_type_double) &&
                      json_object_is_type(inprogress, json_type_int);
        if (parsed) percentages.push_back(json_object_get_double(value));
        json_object_put(root);
        if (percentages.size() == 1 && onFirstReport) onFirstReport();
    }

    TestServer server;
    LogCapture log;
    WebClient client;
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    ImageProgressMap map;
    std::vector<double> percentages;  // guarded by `lock` (the sender runs under it)
    bool wellFormed = true;           // every report had the shape hosts parse
    std::function<void()> onFirstReport;
};

TEST_F(ProgressJob, FourImageJobReportsRisingSharesAndCompletesEachImage) {
    for (int image = 0; image < 4; ++image) {
        TempFile out;
        const std::string name = "img" + std::to_string(image);
        download_param param = job("/bytes/1048576", name, 4);
        const size_t before = percentages.size();
        int code = 0;
        client.downloadStream(&param, openForWriting(out.path()), &code, false);
        ASSERT_EQ(code, 200);
        const std::vector<double> reports(percentages.begin() + static_cast<long>(before), percentages.end());
        ASSERT_FALSE(reports.empty());
        EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
        EXPECT_GE(reports.front(), 0.25 * image);
        EXPECT_LE(reports.back(), 0.25 * (image + 1) + 1e-9);
        EXPECT_GT(reports.back(), 0.25 * (image + 1) - 0.01);
        EXPECT_DOUBLE_EQ(total_percentage, 0.25 * (image + 1));
        EXPECT_EQ(map["job"][name].downloaded, 1048576.0);
        EXPECT_EQ(map["job"][name].total, 1048576.0);
        EXPECT_EQ(readWholeFile(out.path()), pattern(1048576)) << name;
    }
    EXPECT_TRUE(wellFormed);
}

// A host may guard its map with a robust mutex; one whose owner thread died
// is held by the next locker, and must be given back after each chunk. A
// lock that cannot be taken at all (an error-checking mutex this thread
// already holds, on the caller's-thread path) still lets every chunk count.
TEST_F(ProgressJob, HostLocksThatDoNotLockNormallyNeitherHangNorLoseCounts) {
    const auto download = [&](const char* host, const char* image) {
        TempFile out;
        download_param param = job("/bytes/200000", image);
        param.url = server.url(host, "/bytes/200000");
        int code = 0;
        EXPECT_EQ(client.downloadStream(&param, openForWriting(out.path()), &code, false), "") << image;
        EXPECT_EQ(map["job"][image].downloaded, 200000.0) << image;
    };
    pthread_mutexattr_t kind;
    pthread_mutexattr_init(&kind);
    pthread_mutexattr_setrobust(&kind, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_destroy(&lock);
    pthread_mutex_init(&lock, &kind);
    std::thread([this] { pthread_mutex_lock(&lock); }).join();
    download("127.0.0.1", "robust");
    ASSERT_EQ(pthread_mutex_trylock(&lock), 0) << "given back after each chunk";

    pthread_mutex_unlock(&lock);
    pthread_mutex_destroy(&lock);
    pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&lock, &kind);
    ASSERT_EQ(pthread_mutex_lock(&lock), 0);
    download("localhost", "held");
    EXPECT_EQ(pthread_mutex_unlock(&lock), 0) << "still this thread's";
}

TEST_F(ProgressJob, HostCancelStopsAfterOneMoreChunk) {
    TempFile out;
    download_param param = job("/slow/1048576?chunk=65536&delay_ms=5", "img");
    double countedAtCancel = 0;
    onFirstReport = [&] {  // runs under the progress lock, as a host would hold it
        ImageDownload& entry = map["job"]["img"];
        entry.cancel = true;
        countedAtCancel = entry.downloaded;
    };
    int code = 0;
    EXPECT_FALSE(client.downloadStream(&param, openForWriting(out.path()), &code, false).empty());
    EXPECT_EQ(log.count("CheckStatus curl error : 23"), 1u);
    EXPECT_EQ(log.count("Cancel download, image: img"), 1u);
    const double counted = map["job"]["img"].downloaded;
    EXPECT_GT(counted, countedAtCancel) << "one more chunk is written and counted";
    EXPECT_LT(counted, 1048576.0);
    EXPECT_EQ(static_cast<double>(readWholeFile(out.path()).size()), counted);
}

namespace {

std::atomic<int> sigpipesHandled{0};

void countSigpipe(int) { sigpipesHandled.fetch_add(1); }

// A stream whose writes succeed, each raising a SIGPIPE of its own.
ssize_t writeRaisingSigpipe(void*, const char*, size_t size) {
    pthread_kill(pthread_self(), SIGPIPE);
    return static_cast<ssize_t>(size);
}

std::shared_ptr<FILE> unbuffered(FILE* stream) {
    setvbuf(stream, nullptr, _IONBF, 0);  // nothing left for our own fclose to write
    return std::shared_ptr<FILE>(stream, fclose);
}

}  // namespace

// A pipe whose reader has gone fails the download, and SIGPIPE must not end
// a host that has not set it aside (the test servers ignore it for all);
// a SIGPIPE the download did not cause still reaches the host.
TEST_F(ProgressJob, APipeWithoutReaderFailsTheDownloadAndNothingElse) {
    download_param plain;
    int code = 0;
    struct sigaction fatal = {}, counting = {}, before = {};
    fatal.sa_handler = SIG_DFL;
    ASSERT_EQ(sigaction(SIGPIPE, &fatal, &before), 0);
    for (const char* host : {"127.0.0.1", "localhost"}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        close(ends[0]);
        plain.url = server.url(host, "/bytes/3000");
        EXPECT_FALSE(client.downloadStream(&plain, unbuffered(fdopen(ends[1], "w")), &code, false).empty()) << host;
    }
    counting.sa_handler = countSigpipe;
    sigaction(SIGPIPE, &counting, nullptr);
    for (const char* host : {"127.0.0.1", "localhost"}) {
        sigpipesHandled = 0;
        plain.url = server.url(host, "/bytes/3000");
        const cookie_io_functions_t raising = {nullptr, writeRaisingSigpipe, nullptr, nullptr};
        EXPECT_EQ(client.downloadStream(&plain, unbuffered(fopencookie(nullptr, "w", raising)), &code, false), "")
            << host;
        EXPECT_GE(sigpipesHandled.load(), 1) << host;
    }
    // An EPIPE left from before the guard is not the guarded write's.
    sigpipesHandled = 0;
    errno = EPIPE;
    {
        webclient::SigpipeShield shield;
        pthread_kill(pthread_self(), SIGPIPE);
    }
    EXPECT_EQ(sigpipesHandled.load(), 1);
    EXPECT_EQ(errno, EPIPE) << "the caller's errno, as the guarded code set none";
    sigaction(SIGPIPE, &before, nullptr);
}

TEST_F(ProgressJob, WriteFailuresAndUnusableArgumentsEndTheDownload) {
    TempFile out("existing");
    download_param param = job("/bytes/200000", "ro");
    int code = 0;
    EXPECT_FALSE(client.downloadStream(&param, openForWriting(out.path(), "r"), &code, false).empty());
    EXPECT_EQ(log.count("write file error, download for this image will be cancel, image: ro"), 1u);
    // A full disk under a body smaller than stdio's buffer, with and without
    // bookkeeping: the loss must not wait for the caller's fclose to show.
    download_param small = job("/bytes/3000", "full");
    EXPECT_FALSE(client.downloadStream(&small, openForWriting("/dev/full"), &code, false).empty());
    download_param plain;
    plain.url = small.url;
    EXPECT_FALSE(client.downloadStream(&plain, openForWriting("/dev/full"), &code, false).empty());
    // A lock without a map: no bookkeeping, so neither the divisor nor the
    // image's line; the loss is still logged.
    small.progress_map = nullptr;
    small.progress_divisor = 0;
    EXPECT_FALSE(client.downloadStream(&small, openForWriting("/dev/full"), &code, false).empty());
    EXPECT_EQ(log.countContaining("write file error, download will be cancelled: No space left on device"), 2u);
    EXPECT_EQ(log.countContaining("progress_divisor is not positive"), 0u);

    EXPECT_EQ(client.downloadStream(&plain, nullptr, &code, false), "invalid argument") << "no crash at the first chunk";
    reset_download_percentage_data();
    percentages.clear();
    download_param noDivisor = job("/bytes/200000", "nodiv", 0);
    EXPECT_EQ(client.downloadStream(&noDivisor, openForWriting(out.path()), &code, false), "");
    EXPECT_EQ(code, 200);
    EXPECT_EQ(log.count("[downloadStream] progress_divisor is not positive: no progress reports for nodiv"), 1u);
    EXPECT_TRUE(percentages.empty()) << "a zero divisor would report Infinity, which is not JSON";
    download_param tinyDivisor = job("/bytes/200000", "tiny", 1e-320);  // the quotient overflows
    EXPECT_EQ(client.downloadStream(&tinyDivisor, openForWriting(out.path()), &code, false), "");
    EXPECT_TRUE(percentages.empty());
    EXPECT_DOUBLE_EQ(total_percentage, 0.0);
}
