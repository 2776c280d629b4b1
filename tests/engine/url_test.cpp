// What the library reads out of a URL: which path a request takes (a
// numeric host runs on the transfer thread), and what a log line may show.
#include <gtest/gtest.h>

#include "webclient/host.h"
#include "webclient/web_request.h"

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

TEST(PrintableUrl, MasksPasswordsAndClientSecretsOnly) {
    EXPECT_EQ(get_printable_url("https://u:pw@h:1/p?password=2"), "https://u:***@h:1/p?password=***");
    EXPECT_EQ(get_printable_url("http://u:p:q@h"), "http://u:***@h");
    EXPECT_EQ(get_printable_url("https://h/t?password=abc&x=1&client_secret=s&xpassword=2"),
              "https://h/t?password=***&x=1&client_secret=***&xpassword=2");
    EXPECT_EQ(get_printable_url("https://h/p?client_secret=s&b=2&password="), "https://h/p?client_secret=***&b=2&password=***");
    // libcurl takes a URL without a scheme, or with one slash or three.
    EXPECT_EQ(get_printable_url("ui:pw@h:1/p"), "ui:***@h:1/p");
    EXPECT_EQ(get_printable_url("u:p'w@10.0.0.1/x"), "u:***@10.0.0.1/x");
    EXPECT_EQ(get_printable_url("http:/ui:pw@h/p"), "http:/ui:***@h/p");
    EXPECT_EQ(get_printable_url("http:///ui:pw@h/p"), "http:///ui:***@h/p");
    EXPECT_EQ(get_printable_url("http://h/a&b?password=s&client_secret=c"), "http://h/a&b?password=***&client_secret=***");
    EXPECT_EQ(get_printable_url("http://h/p?Password=s&CLIENT_SECRET=c&xPassword=2"),
              "http://h/p?Password=***&CLIENT_SECRET=***&xPassword=2");
    EXPECT_EQ(get_printable_url("Issue another request to this URL: 'http://u:pw@h:1/loop'"),
              "Issue another request to this URL: 'http://u:***@h:1/loop'");
    EXPECT_EQ(get_printable_url("http://h/x\nerror [18] forged\x7f"), "http://h/x\\x0aerror [18] forged\\x7f");
    for (const char* url : {"https://h/p?a=1&b=2", "https://h/password=x", "https://h/p?mypassword=1", "https://u@h:1/",
                            "https://h:1/p?to=a:b@c", "not a url: x@y", "h:1/p?to=a:b@c"}) {
        EXPECT_EQ(get_printable_url(url), url);
    }
}
