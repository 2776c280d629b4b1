#include "support/log_capture.h"

#include "webclient/host.h"

LogCapture::LogCapture() : previousLevel_(GetWebClientLogLevel()) {
    SetWebClientLogLevel(WEBCLIENT_LOG_DEBUG);
    SetWebClientLogSink([this](int level, int module, const std::string& text) {
        std::lock_guard<std::mutex> guard(mutex_);
        lines_.push_back(LogLine{level, module, text});
    });
}

LogCapture::~LogCapture() {
    SetWebClientLogSink(nullptr);
    SetWebClientLogLevel(previousLevel_);
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

size_t LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> guard(mutex_);
    size_t n = 0;
    for (const auto& line : lines_) n += (line.text == text) ? 1 : 0;
    return n;
}

size_t LogCapture::countContaining(const std::string& fragment) const {
    std::lock_guard<std::mutex> guard(mutex_);
    size_t n = 0;
    for (const auto& line : lines_) n += (line.text.find(fragment) != std::string::npos) ? 1 : 0;
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.clear();
}
