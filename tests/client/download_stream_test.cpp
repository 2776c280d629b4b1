// Streamed downloads: file contents, progress bookkeeping and reports,
// host cancellation, write failures.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include "support/log_capture.h"
#include "support/server_util.h"
#include "support/test_helpers.h"
#include "webclient/host.h"
#include "webclient/web_client.h"

namespace {

// A host's side of a progress job: lock, map, and the reports it receives.
class ProgressHost {
public:
    ProgressHost() {
        reset_download_percentage_data();
        SetSalSend([this](const char* report) { onReport(report); });
    }
    ~ProgressHost() { SetSalSend(nullptr); }

    void prepare(download_param& param, const std::string& image, double divisor) {
        param.progress_key = "job";
        param.image_name = image;
        param.progress_lock = &lock;
        param.progress_map = &map;
        param.progress_divisor = divisor;
    }
    std::vector<double> reportsFor(size_t from) const {
        return std::vector<double>(percentages.begin() + static_cast<long>(from), percentages.end());
    }

    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    ImageProgressMap map;
    std::vector<double> percentages;  // guarded by `lock` (the sender runs under it)
    std::vector<std::string> texts;
    std::function<void()> onFirstReport;

private:
    void onReport(const char* text) {
        texts.emplace_back(text);
        json_object* root = json_tokener_parse(text);
        json_object *data, *job, *value;
        if (json_object_object_get_ex(root, "data", &data) && json_object_object_get_ex(data, "job", &job) &&
            json_object_object_get_ex(job, "percentage", &value)) {
            percentages.push_back(json_object_get_double(value));
        }
        json_object_put(root);
        if (percentages.size() == 1 && onFirstReport) onFirstReport();
    }
};

std::shared_ptr<FILE> openForWriting(const std::string& path, const char* mode = "w+") {
    FILE* stream = std::fopen(path.c_str(), mode);
    return std::shared_ptr<FILE>(stream, std::fclose);
}

}  // namespace

TEST(DownloadStream, WritesTheBodyOnBothPathsWithoutBookkeeping) {
    TestServer server;
    WebClient client;
    for (const char* host : {"127.0.0.1", "localhost"}) {
        TempFile out;
        download_param param;
        param.url = serverUrl(server, host, "/bytes/300000");
        int code = 0;
        {
            auto file = openForWriting(out.path());
            EXPECT_EQ(client.downloadStream(&param, file, &code, false), "");
        }
        EXPECT_EQ(code, 200);
        EXPECT_EQ(readWholeFile(out.path()), pattern(300000)) << host;
    }
}

TEST(DownloadStream, FourImageJobReportsRisingSharesAndCompletesEachImage) {
    TestServer server;
    WebClient client;
    ProgressHost host;
    for (int image = 0; image < 4; ++image) {
        TempFile out;
        download_param param;
        param.url = serverUrl(server, "127.0.0.1", "/bytes/1048576");
        host.prepare(param, "img" + std::to_string(image), 4);
        const size_t before = host.percentages.size();
        int code = 0;
        client.downloadStream(&param, openForWriting(out.path()), &code, false);
        ASSERT_EQ(code, 200);
        const std::vector<double> reports = host.reportsFor(before);
        ASSERT_FALSE(reports.empty());
        EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
        EXPECT_GE(reports.front(), 0.25 * image);
        EXPECT_LE(reports.back(), 0.25 * (image + 1) + 1e-9);
        EXPECT_GT(reports.back(), 0.25 * (image + 1) - 0.01);
        EXPECT_DOUBLE_EQ(total_percentage, 0.25 * (image + 1));
        const ImageDownload& entry = host.map["job"]["img" + std::to_string(image)];
        EXPECT_EQ(entry.downloaded, 1048576.0);
        EXPECT_EQ(entry.total, 1048576.0);
    }
    json_object* first = json_tokener_parse(host.texts.front().c_str());
    json_object *token, *data, *job, *fail, *inprogress;
    ASSERT_TRUE(json_object_object_get_ex(first, "token", &token));
    EXPECT_STREQ(json_object_get_string(token), "query_percentage");
    ASSERT_TRUE(json_object_object_get_ex(first, "data", &data));
    ASSERT_TRUE(json_object_object_get_ex(data, "job", &job));
    ASSERT_TRUE(json_object_object_get_ex(job, "fail", &fail));
    EXPECT_TRUE(json_object_is_type(fail, json_type_boolean));
    ASSERT_TRUE(json_object_object_get_ex(job, "inprogress", &inprogress));
    EXPECT_TRUE(json_object_is_type(inprogress, json_type_int));
    json_object_put(first);
}

// One image of a progress job on the transfer thread.
class ProgressJob : public ::testing::Test {
protected:
    download_param job(const std::string& path, const std::string& image) {
        download_param param;
        param.url = serverUrl(server, "127.0.0.1", path);
        host.prepare(param, image, 1);
        return param;
    }

    TestServer server;
    LogCapture log;
    WebClient client;
    ProgressHost host;
};

TEST_F(ProgressJob, HostCancelStopsAfterOneMoreChunk) {
    TempFile out;
    download_param param = job("/slow/1048576?chunk=65536&delay_ms=5", "img");
    double countedAtCancel = 0;
    host.onFirstReport = [&] {  // runs under the progress lock, as a host would hold it
        ImageDownload& entry = host.map["job"]["img"];
        entry.cancel = true;
        countedAtCancel = entry.downloaded;
    };
    int code = 0;
    const std::string error = client.downloadStream(&param, openForWriting(out.path()), &code, false);
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(log.count("CheckStatus curl error : 23"), 1u);
    EXPECT_EQ(log.count("Cancel download, image: img"), 1u);
    const double counted = host.map["job"]["img"].downloaded;
    EXPECT_GT(counted, countedAtCancel) << "one more chunk is written and counted";
    EXPECT_LT(counted, 1048576.0);
    EXPECT_EQ(static_cast<double>(readWholeFile(out.path()).size()), counted);
}

TEST_F(ProgressJob, UnwritableFileCancelsTheDownload) {
    TempFile out("existing");
    download_param param = job("/bytes/200000", "ro");
    int code = 0;
    const std::string error = client.downloadStream(&param, openForWriting(out.path(), "r"), &code, false);
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(log.count("write file error, download for this image will be cancel, image: ro"), 1u);
}

TEST_F(ProgressJob, UnknownLengthSendsNoReportAndNeverCompletes) {
    TempFile out;
    download_param param = job("/bytes-chunked/500000", "chunked");
    int code = 0;
    EXPECT_EQ(client.downloadStream(&param, openForWriting(out.path()), &code, false), "");
    EXPECT_TRUE(host.percentages.empty());
    EXPECT_EQ(total_percentage, 0.0);
    EXPECT_EQ(host.map["job"]["chunked"].total, -1.0);
    EXPECT_EQ(readWholeFile(out.path()).size(), 500000u);
}

TEST(DownloadStream, HeaderOverloadAppliesCredentialsEvenWithoutHeaders) {
    TestServer server;
    WebClient client;
    TempFile out;
    download_param param;
    param.url = serverUrl(server, "127.0.0.1", "/echo");
    param.user = "u";
    param.password = "p";
    int code = 0;
    client.downloadStream(&param, openForWriting(out.path()), &code, false);
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "") << "no header lines: no credentials";
    std::string responseHeaders;
    client.downloadStream(&param, openForWriting(out.path()), responseHeaders, false);
    EXPECT_EQ(headerOf(lastRequest(server), "Authorization"), "Basic dTpw");
    EXPECT_EQ(responseHeaders.rfind("HTTP/1.1 200", 0), 0u);
}
