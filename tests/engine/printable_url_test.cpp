// Masking of secrets in URLs shown in log lines.
#include <gtest/gtest.h>

#include "webclient/web_request.h"

TEST(PrintableUrl, MasksPasswordAndClientSecretValues) {
    EXPECT_EQ(get_printable_url("https://10.0.0.1/token?password=abc&x=1&client_secret=s"),
              "https://10.0.0.1/token?password=***&x=1&client_secret=***");
    EXPECT_EQ(get_printable_url("https://10.0.0.1/p?a=1&password=x"), "https://10.0.0.1/p?a=1&password=***");
    EXPECT_EQ(get_printable_url("https://10.0.0.1/p?client_secret=s&b=2"),
              "https://10.0.0.1/p?client_secret=***&b=2");
}

TEST(PrintableUrl, LeavesOtherUrlsAlone) {
    for (const char* url : {"https://10.0.0.1/p", "https://10.0.0.1/p?a=1&b=2",
                            "https://10.0.0.1/password=x", "https://10.0.0.1/p?mypassword=1"}) {
        EXPECT_EQ(get_printable_url(url), url);
    }
    EXPECT_EQ(get_printable_url("https://h/p?password=1&xpassword=2"), "https://h/p?password=***&xpassword=2");
    EXPECT_EQ(get_printable_url("https://h/p?a=1&password="), "https://h/p?a=1&password=***");
}
