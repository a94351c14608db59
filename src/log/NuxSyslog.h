// The library's one log front end: a fixed prefix, a 254-character line, syslog.
#ifndef SABLE_LOG_NUX_SYSLOG_H
#define SABLE_LOG_NUX_SYSLOG_H

#include <syslog.h>

#include <cstddef>
#include <cstdint>

enum NUXLogType : int32_t {
    LOG_NUX = 0,
    LOG_SABLECOMM = 1,
    LOG_FAULTEVENT = 2,
    LOG_HEARTBEAT = 3,
    // Restrained types: one call site (thread, line, file) prints at most once per 600 s.
    LOG_NUX_RESTRAINED = 4,
    LOG_SABLECOMM_RESTRAINED = 5,
    LOG_FAULTEVENT_RESTRAINED = 6,
    LOG_HEARTBEAT_RESTRAINED = 7,
    // 8 and above: restrained, and printed without the prefix.
};

// `level` is the syslog priority; levels above LOG_NOTICE are dropped before any work and
// leave errno untouched. errno is preserved across a printed call. Thread-safe.
extern "C" void NuxSyslog(NUXLogType type, int level, int line, const char* file, const char* fmt,
                          ...) __attribute__((format(printf, 5, 6)));

namespace sable {
// Appends the decimal digits of `value`, least significant first and without the most
// significant one, behind the first NUL of the 256-byte `buf`. 0, or -1 when it does not fit.
int AppendReversedDigits(char* buf, uint64_t value);
// Has the C library read the time zone (TZ), once per process; later calls return at once. The
// log's local-time stamps need it, and the environment manager calls it before it changes the
// environment: once read, a conversion never looks at the environment again, so no thread
// reads it while setenv moves it. Thread-safe.
void LoadTimeZoneOnce();
}  // namespace sable

#ifndef __FILE_NAME__
#define __FILE_NAME__ __FILE__
#endif

// Info and debug lines are dropped by the logger anyway; testing the constant level here keeps
// hot paths from even evaluating their arguments.
#define SABLE_LOG_TYPE(type, level, ...)                                      \
    do {                                                                      \
        if ((level) <= LOG_NOTICE) {                                          \
            NuxSyslog((type), (level), __LINE__, __FILE_NAME__, __VA_ARGS__); \
        }                                                                     \
    } while (0)

#define SABLE_LOG(level, ...) SABLE_LOG_TYPE(LOG_SABLECOMM, level, __VA_ARGS__)
#define SABLE_LOG_R(level, ...) SABLE_LOG_TYPE(LOG_SABLECOMM_RESTRAINED, level, __VA_ARGS__)

#define LOGE(...) SABLE_LOG(LOG_ERR, __VA_ARGS__)
#define LOGW(...) SABLE_LOG(LOG_WARNING, __VA_ARGS__)
#define LOGN(...) SABLE_LOG(LOG_NOTICE, __VA_ARGS__)
#define LOGI(...) SABLE_LOG(LOG_INFO, __VA_ARGS__)
#define LOGD(...) SABLE_LOG(LOG_DEBUG, __VA_ARGS__)
#define LOGE_R(...) SABLE_LOG_R(LOG_ERR, __VA_ARGS__)
#define LOGW_R(...) SABLE_LOG_R(LOG_WARNING, __VA_ARGS__)
#define LOGI_R(...) SABLE_LOG_R(LOG_INFO, __VA_ARGS__)

#endif
