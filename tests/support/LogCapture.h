// Captures the library's syslog lines: the test executable defines syslog (and the fortified
// __syslog_chk), which the library binds to.
#ifndef SABLE_TESTS_LOG_CAPTURE_H
#define SABLE_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace sable_test {

struct LogLine {
    int level;
    std::string text;
};

// Starts capturing on construction (dropping what came before) and stops on destruction.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    // Number of captured lines containing `needle`.
    size_t Count(const std::string& needle) const;
    bool Contains(const std::string& needle) const { return Count(needle) > 0; }
    // The first line containing `needle`, or "".
    std::string Find(const std::string& needle) const;
    void Clear();
    // Waits up to `timeoutMs` for a line containing `needle`.
    bool WaitFor(const std::string& needle, int timeoutMs) const;
};

}  // namespace sable_test

#endif
