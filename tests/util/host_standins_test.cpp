// The stand-ins for the host agent's interfaces that the rest of the
// library and the tests lean on: dispatch by host kind, and the log sink.
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "webclient/host.h"

using kpu_utilities::string_con::IsDomainInUrl;

TEST(IsDomainInUrl, NumericHostsAreNotDomains) {
    for (const char* url : {"http://127.0.0.1/x", "https://user:pw@10.1.2.3:8443/a?b=c", "http://192.0.2.1",
                            "https://[::1]:8443/x", "http://[fe80::1]/", "192.0.2.5/path"}) {
        EXPECT_FALSE(IsDomainInUrl(url)) << url;
    }
    for (const char* url : {"http://localhost:80/x", "https://device.example/x", "http://127.1/",
                            "http://999.1.1.1/", "http://1.2.3.4.5/", "https://a@host:1/"}) {
        EXPECT_TRUE(IsDomainInUrl(url)) << url;
    }
}

TEST(Logging, SinkReceivesLinesWithoutTrailingNewline) {
    LogCapture log;
    orb_log_error(18, "[%s] Exception : %s", "webClientGet", "boom");
    orb_log_info(18, "SSL VERIFYRESULT=%lu:%s\n", 20ul, "unable");
    debug("initCurlBackEnd : %s", "x");
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].level, WEBCLIENT_LOG_ERROR);
    EXPECT_EQ(lines[0].module, 18);
    EXPECT_EQ(lines[0].text, "[webClientGet] Exception : boom");
    EXPECT_EQ(lines[1].text, "SSL VERIFYRESULT=20:unable");
    EXPECT_EQ(lines[2].module, -1);
}
