// The stand-ins for the host agent's interfaces.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "support/log_capture.h"
#include "support/test_helpers.h"
#include "util/lock_guard.h"
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

TEST(Split, KeepsEmptyPieces) {
    EXPECT_EQ(split("https://h:1/a", "/"), (std::vector<std::string>{"https:", "", "h:1", "a"}));
    EXPECT_EQ(split("a&&b&", "&"), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(split("", "/"), (std::vector<std::string>{""}));
    EXPECT_TRUE(split(nullptr, "/").empty());
}

TEST(HostHelpers, StringsFilesAndPlatform) {
    char* copy = Strdup("text");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "text");
    std::free(copy);
    EXPECT_EQ(Strdup(nullptr), nullptr);

    TempFile file("x");
    EXPECT_NE(isFileExist(file.path().c_str()), 0);
    EXPECT_EQ(isFileExist("/nonexistent/file"), 0);

    unsetenv("WEBCLIENT_APPDATA_DIR");
    EXPECT_STREQ(GetAppDataDir(), "/var/lib/webclient");
    setenv("WEBCLIENT_APPDATA_DIR", "/srv/data", 1);
    EXPECT_STREQ(GetAppDataDir(), "/srv/data");
    unsetenv("WEBCLIENT_APPDATA_DIR");

    setenv("WEBCLIENT_PLATFORM", "x linux-kv210-kv410_armhf y", 1);
    EXPECT_EQ(kpu_utilities::system_info::GetPlatformInfo(), "x linux-kv210-kv410_armhf y");
    unsetenv("WEBCLIENT_PLATFORM");
    EXPECT_EQ(kpu_utilities::system_info::GetPlatformInfo().rfind("linux-", 0), 0u);
}

TEST(HostHelpers, BoundsCheckedMemory) {
    char buffer[8] = "abcdefg";
    EXPECT_EQ(memset_s_helper(buffer, sizeof buffer, 0, 100), ERANGE);
    EXPECT_EQ(std::string(buffer, 8), std::string(8, '\0')) << "clamped to the destination";
    EXPECT_EQ(memcpy_s_helper(buffer, sizeof buffer, "0123456789", 10), ERANGE);
    EXPECT_EQ(memcpy_s_helper(buffer, sizeof buffer, "0123", 5), 0);
    EXPECT_STREQ(buffer, "0123");
    EXPECT_EQ(memcpy_s_helper(nullptr, 4, "x", 1), EINVAL);
    EXPECT_EQ(strnlen_s_helper("abcdef", 3), 3u);
    EXPECT_EQ(strnlen_s_helper(nullptr, 3), 0u);
}

TEST(LockGuards, LockAndUnlockAndToleratePointerless) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        utilities::lock::lock_guard guard(&mutex);
        EXPECT_TRUE(guard.owns());
        EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
    utilities::lock::lock_guard none(nullptr);
    EXPECT_FALSE(none.owns());

    pthread_rwlock_t rwlock = PTHREAD_RWLOCK_INITIALIZER;
    {
        utilities::lock::lock_guard_read reader(&rwlock);
        EXPECT_EQ(pthread_rwlock_trywrlock(&rwlock), EBUSY);
        EXPECT_EQ(pthread_rwlock_tryrdlock(&rwlock), 0);
        pthread_rwlock_unlock(&rwlock);
    }
    {
        utilities::lock::lock_guard_write writer(&rwlock);
        EXPECT_EQ(pthread_rwlock_tryrdlock(&rwlock), EBUSY);
    }
    EXPECT_EQ(pthread_rwlock_trywrlock(&rwlock), 0);
    pthread_rwlock_unlock(&rwlock);
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

// The stand-in's own output, seen from a child process with a fresh
// threshold taken from its environment.
std::string stderrOfChild(const char* level) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDERR_FILENO);
        if (level) setenv("WEBCLIENT_LOG_LEVEL", level, 1); else unsetenv("WEBCLIENT_LOG_LEVEL");
        SetWebClientLogLevel(-1);  // forget the parent's threshold
        orb_log_debug(18, "d");
        orb_log_info(18, "i");
        orb_log_warning(18, "w %d", 1);
        orb_log_error(18, "e");
        debug("hd");
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char chunk[256];
    for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return text;
}

TEST(Logging, StandardErrorFormatAndThresholdFromEnvironment) {
    EXPECT_EQ(stderrOfChild(nullptr), "warning [18] w 1\nerror [18] e\n");
    EXPECT_EQ(stderrOfChild("error"), "error [18] e\n");
    EXPECT_EQ(stderrOfChild("debug"), "debug [18] d\ninfo [18] i\nwarning [18] w 1\nerror [18] e\ndebug hd\n");
}

TEST(SalSend, RegisteredSenderIsReturned) {
    EXPECT_FALSE(GetSalSend());
    std::string got;
    SetSalSend([&](const char* text) { got = text; });
    GetSalSend()("report");
    EXPECT_EQ(got, "report");
    SetSalSend(nullptr);
    EXPECT_FALSE(GetSalSend());
}
