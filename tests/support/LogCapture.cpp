#include "LogCapture.h"

#include <syslog.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <thread>

namespace {

struct Store {
    std::mutex mu;
    std::condition_variable cv;
    bool capturing = false;
    std::vector<sable_test::LogLine> lines;
};

Store& TheStore() {
    static Store* store = new Store;  // outlives static destructors that still log
    return *store;
}

void Record(int level, const char* fmt, va_list ap) {
    char buf[1024];
    vsnprintf(buf, sizeof(buf), fmt, ap);
    Store& s = TheStore();
    std::lock_guard<std::mutex> lock(s.mu);
    if (s.capturing) {
        s.lines.push_back({level, buf});
        s.cv.notify_all();
    }
}

}  // namespace

extern "C" void syslog(int level, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    Record(level, fmt, ap);
    va_end(ap);
}

extern "C" void __syslog_chk(int level, int /*flag*/, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    Record(level, fmt, ap);
    va_end(ap);
}

namespace sable_test {

LogCapture::LogCapture() {
    Store& s = TheStore();
    std::lock_guard<std::mutex> lock(s.mu);
    s.lines.clear();
    s.capturing = true;
}

LogCapture::~LogCapture() {
    Store& s = TheStore();
    std::lock_guard<std::mutex> lock(s.mu);
    s.capturing = false;
    s.lines.clear();
}

std::vector<LogLine> LogCapture::Lines() const {
    Store& s = TheStore();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.lines;
}

size_t LogCapture::Count(const std::string& needle) const {
    size_t n = 0;
    for (const auto& l : Lines()) {
        if (l.text.find(needle) != std::string::npos) ++n;
    }
    return n;
}

std::string LogCapture::Find(const std::string& needle) const {
    for (const auto& l : Lines()) {
        if (l.text.find(needle) != std::string::npos) return l.text;
    }
    return "";
}

void LogCapture::Clear() {
    Store& s = TheStore();
    std::lock_guard<std::mutex> lock(s.mu);
    s.lines.clear();
}

bool LogCapture::WaitFor(const std::string& needle, int timeoutMs) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!Contains(needle)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace sable_test
