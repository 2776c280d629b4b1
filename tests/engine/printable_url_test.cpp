// Masking of secrets in URLs shown in log lines.
#include <gtest/gtest.h>

#include "webclient/web_request.h"

TEST(PrintableUrl, MasksOnlyPasswordAndClientSecretValues) {
    EXPECT_EQ(get_printable_url("https://h/t?password=abc&x=1&client_secret=s&xpassword=2"),
              "https://h/t?password=***&x=1&client_secret=***&xpassword=2");
    EXPECT_EQ(get_printable_url("https://h/p?client_secret=s&b=2&password="), "https://h/p?client_secret=***&b=2&password=***");
    for (const char* url : {"https://h/p?a=1&b=2", "https://h/password=x", "https://h/p?mypassword=1"}) {
        EXPECT_EQ(get_printable_url(url), url);
    }
}
