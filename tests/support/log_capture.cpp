#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>

#include "webclient/host.h"

const char kSentinelSecret[] = "S3ntinel-Pw";

namespace {

std::atomic<bool> watching{false};

bool showsParameterValue(const std::string& text, const std::string& name) {
    for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
        const size_t value = at + name.size();
        const bool masked = text.compare(value, 3, "***") == 0;
        const bool empty = value == text.size() || std::string("& \t\r\n\"']").find(text[value]) != std::string::npos;
        if (!masked && !empty) return true;
    }
    return false;
}

void watchingSink(int level, int module, const std::string& text) {
    checkLineForSecrets(text);
    if (level < WEBCLIENT_LOG_WARNING) return;
    static const char* const kNames[] = {"debug", "info", "warning", "error"};
    std::fprintf(stderr, "%s [%d] %s\n", kNames[level], module, text.c_str());
}

}  // namespace

void checkLineForSecrets(const std::string& text) {
    if (text.find(kSentinelSecret) != std::string::npos || showsParameterValue(text, "password=") ||
        showsParameterValue(text, "client_secret=")) {
        ADD_FAILURE() << "a log line shows a secret: " << text;
    }
}

void watchLogsForSecrets() {
    watching = true;
    SetWebClientLogLevel(WEBCLIENT_LOG_DEBUG);
    SetWebClientLogSink(watchingSink);
}

LogCapture::LogCapture() : previousLevel_(GetWebClientLogLevel()) {
    SetWebClientLogLevel(WEBCLIENT_LOG_DEBUG);
    SetWebClientLogSink([this](int, int, const std::string& text) {
        checkLineForSecrets(text);
        std::lock_guard<std::mutex> guard(mutex_);
        lines_.push_back(text);
    });
}

LogCapture::~LogCapture() {
    SetWebClientLogSink(watching ? WebClientLogSink(watchingSink) : WebClientLogSink());
    SetWebClientLogLevel(previousLevel_);
}

size_t LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> guard(mutex_);
    size_t n = 0;
    for (const auto& line : lines_) n += (line == text) ? 1 : 0;
    return n;
}

size_t LogCapture::countContaining(const std::string& fragment) const {
    std::lock_guard<std::mutex> guard(mutex_);
    size_t n = 0;
    for (const auto& line : lines_) n += (line.find(fragment) != std::string::npos) ? 1 : 0;
    return n;
}
