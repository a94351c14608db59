#include "log/NuxSyslog.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <functional>
#include <mutex>
#include <string_view>

#include "base/safe_c.h"
#include "env/EnvManager.h"
#include "log/NuxRestrainedLog.h"

namespace {

constexpr size_t kBufSize = 256;
constexpr size_t kMaxChars = 255;
constexpr size_t kStampSize = 32;

const char* const kTypeTags[8] = {"NUX", "SABLECOMM", "FAULTEVENT", "HEARTBEAT",
                                  "NUX", "SABLECOMM", "FAULTEVENT", "HEARTBEAT"};

// Serialises line building and the syslog call so lines of concurrent threads stay whole and
// in order. Lock order: taken before the environment mutex (the first line of the process
// resolves the process name under it) and never while the restraint table's mutex is held.
// A plain function-local object would be destroyed at exit while other static destructors
// still log, so it is never destroyed.
std::mutex& LogMutex() {
    static std::mutex* mu = new std::mutex;
    return *mu;
}

// Site key: thread id and line (digits reversed, see AppendReversedDigits) and the file name.
bool SiteMayPrint(int line, const char* file) {
    char key[kBufSize];
    memset(key, 0, sizeof(key));
    if (sable::AppendReversedDigits(key, static_cast<uint64_t>(pthread_self())) != 0 ||
        sable::AppendReversedDigits(key, static_cast<uint64_t>(static_cast<int64_t>(line))) != 0 ||
        file == nullptr || strcat_s(key, sizeof(key), file) != 0) {
        return false;
    }
    // The string_view hash is the string hash over the same bytes, without a copy.
    size_t hash = std::hash<std::string_view>{}(std::string_view(key));
    auto restraint = NuxCore::NuxRestrainedLog::GetInstance(true);
    if (!restraint) {
        return false;
    }
    return restraint->PrintTableInsert(hash) == 0;
}

void BuildStamp(char (&stamp)[kStampSize]) {
    sable::LoadTimeZoneOnce();
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm local {};
    char hms[kStampSize] = {0};
    bool ok = localtime_r(&ts.tv_sec, &local) != nullptr &&
              strftime(hms, sizeof(hms), "%T", &local) != 0 &&
              sable::SnprintfCount(stamp, sizeof(stamp), kStampSize - 1, "%s.%06d", hms,
                                   static_cast<int>(ts.tv_nsec / 1000)) >= 0;
    if (!ok) {
        stamp[0] = 'F';
        stamp[1] = '\0';
    }
}

}  // namespace

namespace sable {

void LoadTimeZoneOnce() {
    static std::once_flag loaded;
    std::call_once(loaded, [] { tzset(); });
}

int AppendReversedDigits(char* buf, uint64_t value) {
    size_t pos = 0;
    while (pos < kBufSize && buf[pos] != '\0') {
        ++pos;
    }
    if (pos == kBufSize) {
        return -1;
    }
    while (pos < kBufSize) {
        uint64_t digit = value % 10;
        value /= 10;
        if (value == 0) {
            buf[pos] = '\0';
            return 0;
        }
        buf[pos++] = static_cast<char>('0' + digit);
    }
    buf[kBufSize - 1] = '\0';
    return -1;
}

}  // namespace sable

extern "C" void NuxSyslog(NUXLogType type, int level, int line, const char* file, const char* fmt,
                          ...) {
    int* errnoAddr = &errno;
    if (level > LOG_NOTICE) {
        return;
    }
    int savedErrno = *errnoAddr;
    if (type > LOG_HEARTBEAT && !SiteMayPrint(line, file)) {
        return;
    }

    char message[kBufSize];
    char out[kBufSize];
    memset(message, 0, sizeof(message));
    memset(out, 0, sizeof(out));

    std::lock_guard<std::mutex> guard(LogMutex());
    va_list ap;
    va_start(ap, fmt);
    if (sable::VsnprintfCount(message, sizeof(message), kMaxChars, fmt, ap) < 0) {
        message[0] = 'F';
        message[1] = '\0';
    }
    va_end(ap);
    message[kMaxChars] = '\0';

    if (type <= LOG_HEARTBEAT_RESTRAINED) {
        char stamp[kStampSize] = {0};
        BuildStamp(stamp);
        if (sable::SnprintfCount(out, sizeof(out), kMaxChars, "[%s][%s][%s][%d][%lu][%s:%d] ",
                                 kTypeTags[type < 0 ? 0 : type], EnvManager::ProcName(), stamp,
                                 getpid(), static_cast<unsigned long>(pthread_self()),
                                 file != nullptr ? file : "UnknowFile", line) < 0) {
            out[0] = '\0';
        }
    }

    size_t n = strnlen(out, kMaxChars);
    if (kMaxChars - n < 1) {
        out[n] = '\0';
    } else {
        message[kMaxChars - 1 - n] = '\0';
        if (memcpy_s(out + n, kMaxChars - n, message, strnlen(message, kMaxChars) + 1) != 0) {
            out[n] = '\0';
        }
    }
    syslog(level, "%s", out);
    *errnoAddr = savedErrno;
}
